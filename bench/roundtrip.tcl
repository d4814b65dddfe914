# Round trip each way over N calls: mean and maximum in microseconds.
#   pytarnsh bench/roundtrip.tcl ?N?
set n [expr {$argc > 0 ? [lindex $argv 0] : 100000}]
if {$::pytarn::status != 0} {
    puts stderr "the bridge did not start"
    exit 1
}

proc tclToPython {n} {
    set total 0
    set worst 0
    for {set i 0} {$i < $n} {incr i} {
        set t0 [clock microseconds]
        ::python::eval 1
        set dt [expr {[clock microseconds] - $t0}]
        incr total $dt
        if {$dt > $worst} {set worst $dt}
    }
    list [expr {double($total) / $n}] $worst
}

::python::exec {
import time
def python_to_tcl(n):
    total = worst = 0
    clock = time.perf_counter_ns
    for _ in range(n):
        t0 = clock()
        tcl.eval('set x 1')
        dt = clock() - t0
        total += dt
        if dt > worst:
            worst = dt
    return [total / n / 1000.0, worst / 1000.0]
}

lassign [tclToPython $n] tclMean tclMax
lassign [::python::eval "python_to_tcl($n)"] pyMean pyMax
puts [format "%-32s %10s %12s" "round trip ($n calls)" "mean us" "max us"]
puts [format "%-32s %10.2f %12.0f" "::python::eval 1" $tclMean $tclMax]
puts [format "%-32s %10.2f %12.0f" "tcl.eval('set x 1')" $pyMean $pyMax]
