# A Python thread works in the background and reports its progress to Tcl, while
# Tcl's event loop stays free: timer ticks keep firing until the work is done.
#     build/pytarnsh examples/progress.tcl
package require pytarn

set ticks 0
proc tick {} {
    incr ::ticks
    after 10 tick
}

# Called by the Python thread through tcl.eval; each call is carried out when Tcl
# is idle in its event loop (here, in vwait).
proc progress {step steps} {
    puts [format "progress %3d%%" [expr {100 * $step / $steps}]]
}

::python::exec {
import threading
import zlib

def work(steps):
    checksum = 0
    block = bytes(range(256)) * 4096
    for step in range(1, steps + 1):
        for _ in range(100):
            checksum = zlib.crc32(block, checksum)
        tcl.eval("progress %d %d" % (step, steps))
    tcl.set("::checksum", "%08x" % checksum)

threading.Thread(target=work, args=(5,), daemon=True).start()
}

after 10 tick
# The thread sets ::checksum last; it may already have done so.
if {![info exists ::checksum]} {vwait ::checksum}
puts "checksum $::checksum"
puts "Tcl stayed responsive: [expr {$ticks > 0 ? "yes" : "no"}] ($ticks timer ticks)"
