# CPU time the process uses while the bridge sits idle in the host's event loop
# for 2 seconds, and while Tcl waits for a Python request that sleeps for 2
# seconds. In a plain tclsh (no bridge) it measures the host's own idle cost,
# the baseline of the first case; the second case's baseline is the same sleep
# made on the calling thread. Microseconds of user plus system time.
source [file join [file dirname [info script]] lib.tcl]

proc cpuDuring {script} {
    set before [bench::cpu]
    uplevel #0 $script
    expr {[bench::cpu] - $before}
}

proc sitIdle {ms} {
    after $ms {set ::idleOver 1}
    vwait ::idleOver
}

if {![info exists ::pytarn::status]} {
    after 200
    record idle.host [cpuDuring {sitIdle 2000}]
    exit
}
::python::exec {import time}
after 200 ;# start-up's last work, if any, is over
record idle.bridge [cpuDuring {sitIdle 2000}]
record idle.wait.bridge [cpuDuring {::python::exec {time.sleep(2)}}]
record idle.wait.baseline [cpuDuring {::baseline::exec {time.sleep(2)}}]
