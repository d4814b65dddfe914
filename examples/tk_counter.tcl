# A Tk window with a counter that a Python thread advances twenty times a second through
# tcl.eval, while the window keeps answering clicks: each call from the thread is carried
# out when Tk's event loop is idle, between the window's own events.
#     TCLLIBPATH=build wish8.6 examples/tk_counter.tcl
package require Tk
package require pytarn

set count 0
set clicks 0
wm title . "pytarn counter"
label .count -textvariable count -font {Helvetica 36 bold} -width 6
button .click -text "Click me" -command {incr ::clicks}
label .clicks -textvariable clicks -width 6
button .quit -text Quit -command stopCounter
pack .count -padx 20 -pady 10
pack .click .clicks .quit -pady 4

::python::exec {
import threading

stop_counting = threading.Event()

def count():
    while not stop_counting.wait(0.05):
        tcl.eval("incr ::count")

def report_end():
    counter.join()
    tcl.set("::counterEnded", 1)

counter = threading.Thread(target=count, name="counter")
counter.start()
threading.Thread(target=report_end, name="counter-watch").start()
}

# Stops the thread and waits in the event loop until it has ended, then closes the
# window, which ends wish. The join happens on a thread of its own: a ::python::
# command may be carried out by whichever Python thread is waiting for Tcl, the
# counter itself included.
proc stopCounter {} {
    ::python::exec {stop_counting.set()}
    if {![info exists ::counterEnded]} {vwait ::counterEnded}
    destroy .
}
wm protocol . WM_DELETE_WINDOW stopCounter
