# Resident memory over 1,000,000 cycles of tcl.createcommand and
# tcl.deletecommand from Python (each cycle also calls the command once): the
# callable must be given back with its command. Growth between the 100,000th
# and the last cycle is what a leak would show as.
#   pytarnsh bench/lifetime.tcl ?CYCLES?
source [file join [file dirname [info script]] lib.tcl]
set cycles [expr {$argc > 0 ? [lindex $argv 0] : [scaled 1000000]}]
set first [expr {min($cycles, 100000)}]

::python::exec {
def resident():
    with open('/proc/self/status') as status:
        for line in status:
            if line.startswith('VmRSS:'):
                return int(line.split()[1])
def cycle(count):
    for i in range(count):
        tcl.createcommand('cycled', lambda *words: len(words))
        tcl.call('cycled', i, 'x')
        tcl.deletecommand('cycled')
    return resident()
}
record lifetime.first.cycles $first
record lifetime.first.kib [::python::eval "cycle($first)"]
record lifetime.cycles $cycles
record lifetime.last.kib [::python::eval "cycle([expr {$cycles - $first}])"]
