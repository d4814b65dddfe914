# Reads JSON and CSV through Python's standard library and walks the result in Tcl.
#     build/pytarnsh examples/data_files.tcl
package require pytarn

set dataDir [file join [file dirname [file normalize [info script]]] data]
::python::set dataDir $dataDir
::python::exec {
import csv, json, os

with open(os.path.join(dataDir, "stations.json"), encoding="utf-8") as f:
    network = json.load(f)
with open(os.path.join(dataDir, "readings.csv"), newline="", encoding="utf-8") as f:
    readings = list(csv.DictReader(f))
}

# JSON objects arrive as Tcl dicts, arrays as Tcl lists.
set network [::python::eval network]
puts "[dict get $network network]: [llength [dict get $network stations]] stations"
foreach station [dict get $network stations] {
    dict with station {
        puts [format "  %-3s %-12s %5d m  %s" $id $name $elevation [join $sensors ", "]]
    }
}

# Each CSV row is a dict keyed by the header; Tcl does the arithmetic.
foreach row [::python::eval readings] {
    dict lappend byStation [dict get $row station] [dict get $row temperature]
}
puts "Mean temperature by station:"
dict for {id values} $byStation {
    puts [format "  %-3s %5.2f from %d readings" $id \
              [expr {[tcl::mathop::+ {*}$values] / [llength $values]}] [llength $values]]
}
