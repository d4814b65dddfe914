# Python's print of 200,000 short lines to Tcl's standard output channel, which
# bench/run sends to a file; its baseline, the same loop in a standalone
# python3.11, is run by bench/run. The time includes the final flush.
source [file join [file dirname [info script]] lib.tcl]

set lines [scaled 200000]
record print.lines $lines
record print.bridge [bench::time 1 [format {
    ::python::exec {
for i in range(%d):
    print(f'line {i}')
}
    flush stdout
} $lines]]
