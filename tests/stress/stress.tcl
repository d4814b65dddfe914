# Shared set-up of the load and concurrency suites (CTest label `stress`).
# Every size in them is a full size times PYTARN_STRESS_SCALE, which is 0.1
# unless the environment says otherwise: CTest runs them reduced, and
#     PYTARN_STRESS_SCALE=1 build/pytarnsh tests/stress/NAME.test
# runs one at full size by hand. Each suite prints what it did and how long
# it took, so a run doubles as a rough measurement.
source [file join [file dirname [info script]] .. tcl harness.tcl]

set scale 0.1
if {[info exists env(PYTARN_STRESS_SCALE)] && $env(PYTARN_STRESS_SCALE) ne ""} {
    set scale $env(PYTARN_STRESS_SCALE)
}
if {![string is double -strict $scale] || $scale <= 0} {
    puts stderr "PYTARN_STRESS_SCALE must be a positive number, not \"$scale\""
    exit 1
}

# The full size N scaled, never below LEAST.
proc scaled {n {least 1}} {
    expr {max($least, int(round($n * $::scale)))}
}

# Bounds each wait, in milliseconds, at many times what a sanitizer build
# takes: only a hang reaches it, and it ends the wait well within CTest's
# own timeout.
set hangBound [expr {int(max(120000, 600000 * $scale))}]

# Runs SCRIPT and returns its wall time in seconds.
proc seconds {script} {
    set start [clock microseconds]
    uplevel 1 $script
    format %.2f [expr {([clock microseconds] - $start) / 1e6}]
}

proc figure {id text} {
    puts "    $id: $text"
}

# startThreads(count, work) runs work(i) on `count` daemon threads; the last
# one to end sets ::ended. Tcl waits for that rather than joining threads in a
# request: any thread waiting for Tcl may be the one to carry out a request.
set startThreadsCode {
import threading

def startThreads(count, work):
    left = [count]
    lock = threading.Lock()
    def run(i):
        try:
            work(i)
        finally:
            with lock:
                left[0] -= 1
                last = left[0] == 0
            if last:
                tcl.eval('set ::ended 1')
    for i in range(count):
        threading.Thread(target=run, args=(i,), daemon=True).start()
}
