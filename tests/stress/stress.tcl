# Shared set-up of the load and concurrency suites (CTest label `stress`). Every size is
# a full size times PYTARN_STRESS_SCALE, 0.1 unless the environment says otherwise:
#     PYTARN_STRESS_SCALE=1 build/pytarnsh tests/stress/NAME.test
# runs one at full size. Each suite prints what it did and how long it took.
source [file join [file dirname [info script]] .. tcl harness.tcl]
set scale [testEnv PYTARN_STRESS_SCALE 0.1]
if {![string is double -strict $scale] || $scale <= 0} {
    puts stderr "PYTARN_STRESS_SCALE must be a positive number, not \"$scale\""
    exit 1
}
# The full size N scaled, never below LEAST.
proc scaled {n {least 1}} {expr {max($least, int(round($n * $::scale)))}}
# Bounds each wait at many times what a sanitizer build takes: only a hang reaches it.
set hangBound [expr {int(max(120000, 600000 * $scale))}]
# Runs SCRIPT and prints ID: TEXT with its wall time in seconds.
proc timed {id text script} {
    set start [clock microseconds]
    uplevel 1 $script
    puts "    $id: $text in [format %.2f [expr {([clock microseconds] - $start) / 1e6}]] s"
}
# startThreads(count, work) runs work(i) on `count` daemon threads; the last to end sets
# ::ended. Tcl waits for that rather than joining threads in a request: any thread waiting
# for Tcl may be the one to carry out a request.
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
