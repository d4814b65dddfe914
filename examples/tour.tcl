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

puts "\n== get and set move single values"
::python::set point [list 3 4]
puts "hypotenuse        = [::python::get {(point[0] ** 2 + point[1] ** 2) ** 0.5}]"
puts "is 'for x in y:' complete? [::python::check {for x in y:}]"

puts "\n== A Python function becomes a Tcl command"
::python::exec {
def describe(*words):
    return ["%s:%s" % (type(w).__name__, w) for w in words]
}
::pytarn::createFunction describe
::pytarn::createFunction ::text::shout {lambda s: s.upper() + "!"}
puts "describe 42 1.5 {two words} -> [describe 42 1.5 {two words}]"
puts "::text::shout hello        -> [::text::shout hello]"

puts "\n== Python reads and writes a host buffer"
::pytarn::buffer create samples [binary format c* {1 2 3 4 5}]
::python::exec {
import Orvanta
data = Orvanta.__buffGetBytes("samples")
print("Python read", list(data))
Orvanta.__buffSetBytes("samples", bytearray(b * 10 for b in data), 0, 5)
}
binary scan [::pytarn::buffer get samples] c* bytes
puts "the buffer now holds $bytes"
