# Runs every suite, each in a pytarnsh of its own, and exits 1 when any failed:
#     pytarnsh tests/tcl/all.tcl ?tcltest options?
set dir [file dirname [file normalize [info script]]]
set failed {}
foreach file [lsort [glob -directory $dir *.test]] {
    if {[catch {exec [info nameofexecutable] $file {*}$argv >@ stdout 2>@ stderr}]} {
        lappend failed [file tail $file]
    }
}
if {[llength $failed] > 0} {
    puts stderr "failing suites: $failed"
    exit 1
}
