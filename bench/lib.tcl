# Set-up shared by the suite's scripts. bench/run starts them with
#   PYTARN_BENCH_LIB    the baseline extension (libbaseline.so)
#   PYTARN_BENCH_OUT    the file that collects "key<TAB>value" lines
#   PYTARN_BENCH_DATA   the directory for per-call samples
#   PYTARN_BENCH_SCALE  the fraction of the full counts to run (1 unless trying out)
load $env(PYTARN_BENCH_LIB) Baseline

if {[info exists ::pytarn::status] && $::pytarn::status != 0} {
    puts stderr "the bridge did not start"
    exit 1
}

proc scaled {count} {
    set scale [expr {[info exists ::env(PYTARN_BENCH_SCALE)] ? $::env(PYTARN_BENCH_SCALE) : 1}]
    expr {max(1, int($count * $scale))}
}

proc record {key value} {
    set chan [open $::env(PYTARN_BENCH_OUT) a]
    puts $chan [format "%s\t%s" $key $value]
    close $chan
}

proc dataFile {name} {
    file join $::env(PYTARN_BENCH_DATA) $name
}

proc median {values} {
    lindex [lsort -real $values] [expr {[llength $values] / 2}]
}

# Records the medians, over ROUNDS rounds, of what the bridge's and the
# baseline's scripts return; the two alternate so that a change in the
# machine's load touches both. %N in a script stands for COUNT; one short
# round of each comes first to warm up.
proc compare {key rounds count bridge baseline} {
    set warm [expr {min($count, 1000)}]
    uplevel #0 [string map [list %N $warm] $bridge]
    uplevel #0 [string map [list %N $warm] $baseline]
    set fromBridge {}
    set fromBaseline {}
    for {set r 0} {$r < $rounds} {incr r} {
        lappend fromBridge [uplevel #0 [string map [list %N $count] $bridge]]
        lappend fromBaseline [uplevel #0 [string map [list %N $count] $baseline]]
    }
    record $key.bridge [median $fromBridge]
    record $key.baseline [median $fromBaseline]
}
