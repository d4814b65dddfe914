# Resident memory over 1,000,000 mixed calls across the bridge: each round makes ten
# crossings (results, arguments and errors converted both ways, printing, a command
# made from a Python function). Growth between the 100,000th and the last call is
# what a leak would show as.
#   pytarnsh bench/memory.tcl ?CALLS?
set calls [expr {$argc > 0 ? [lindex $argv 0] : 1000000}]
if {$::pytarn::status != 0} {
    puts stderr "the bridge did not start"
    exit 1
}

proc residentKiB {} {
    set chan [open /proc/self/status]
    regexp {VmRSS:\s+(\d+)} [read $chan] -> kib
    close $chan
    return $kib
}

# print goes through the `puts` of the namespace it is called from; this one
# discards, so the benchmark measures the crossing, not the terminal.
namespace eval quiet {
    proc puts args {}
}

::python::exec {values = []}
::pytarn::createFunction add {lambda a, b: a + b}

proc round {i} {
    ::python::get "\[$i, 'x y', {'k': 1.5, 'l': \[1, 2\]}\]"
    ::python::set values [list $i {a b} [dict create k $i]]
    namespace eval quiet [list ::python::exec "tcl.set('w', \[$i, {'a': 'b'}\]); print($i)"]
    add $i 1
    catch {::python::eval {values[99]}}
    ::python::eval "tcl.eval('list $i {2 3} \[dict create a b\]')"
}

set perRound 10
set checkpoints [list 100000 $calls]
set results {}
set made 0
set start [clock milliseconds]
for {set i 0} {$made < $calls} {incr i} {
    round $i
    incr made $perRound
    if {$made == [lindex $checkpoints 0]} {
        lappend results $made [residentKiB]
        set checkpoints [lrange $checkpoints 1 end]
    }
}
set seconds [expr {([clock milliseconds] - $start) / 1000.0}]
foreach {at kib} $results {
    puts [format "resident after %9d calls: %8d KiB" $at $kib]
}
if {[llength $results] == 4} {
    puts [format "growth: %d KiB over %d calls (%.1f s)" \
              [expr {[lindex $results 3] - [lindex $results 1]}] \
              [expr {[lindex $results 2] - [lindex $results 0]}] $seconds]
}
