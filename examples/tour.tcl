# A short tour of the bridge: run it with build/pytarnsh examples/tour.tcl
if {$::pytarn::status != 0} {
    puts stderr "the Python bridge did not start"
    exit 1
}

puts "== Tcl asks Python"
puts "2 ** 100          = [::python::eval 2 ** 100]"
::python::exec {
import statistics
readings = [12.5, 13.1, 11.8, 14.2, 12.9]
}
puts "mean of readings  = [::python::eval {round(statistics.mean(readings), 2)}]"
puts "a Python list     = [::python::eval {[1, 'two words', (3, 4)]}]"
puts "a Python dict     = [::python::eval {{'name': 'pytarn', 'threads': 2}}]"

puts "\n== Python asks Tcl"
set greeting "hello from Tcl"
::python::exec {
print("tcl.get   ->", tcl.get("greeting"))
tcl.set("fromPython", [1, 2, 3])
print("tcl.eval  ->", tcl.eval("expr {6 * 7}") + 1)
print("a Tcl list arrives as", tcl.eval("list a b {c d}"))
}
puts "fromPython is a Tcl list of [llength $fromPython] elements"

puts "\n== Calls nest both ways"
proc countdown {n} {
    if {$n == 0} { return "liftoff" }
    return "$n [::python::eval "tcl.eval('countdown [expr {$n - 1}]')"]"
}
puts [countdown 5]

puts "\n== Errors cross as errors"
if {[catch {::python::eval {1 / 0}} message]} {
    puts "Python said: [lindex [split [string trim $message] \n] end]"
}
::python::exec {
try:
    tcl.eval("error {no such widget}")
except TclError as e:
    print("Tcl said:", e)
}

puts "\n== A Python thread reports while Tcl waits in its event loop"
::python::exec {
import threading
def work():
    for step in range(1, 4):
        print("  background step", step)
    tcl.eval("set ::finished yes")
threading.Thread(target=work).start()
}
# The thread may finish before Tcl reaches its event loop: wait only if not.
if {![info exists ::finished]} {vwait ::finished}
puts "background work finished: $::finished"
