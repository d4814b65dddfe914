# Hands a list of measurements to Python's statistics module and prints a summary.
#     build/pytarnsh examples/statistics.tcl
#     TCLLIBPATH=build tclsh8.6 examples/statistics.tcl
package require pytarn

# Built with [list], the value is a Tcl list, so Python receives a list; each
# plain decimal fraction arrives as a float.
set temperatures [list 21.4 22.1 19.8 23.5 22.9 20.7 21.8 24.3 22.0 21.1]
::python::set readings $temperatures

::python::exec {
import statistics

mean = statistics.mean(readings)
stdev = statistics.stdev(readings)
summary = {
    "count": len(readings),
    "mean": round(mean, 2),
    "median": round(statistics.median(readings), 2),
    "stdev": round(stdev, 2),
    "quartiles": [round(q, 2) for q in statistics.quantiles(readings, n=4)],
    "unusual": [r for r in readings if abs(r - mean) > 1.5 * stdev],
}
}

# A Python dict arrives as a Tcl dict, its lists as Tcl lists.
dict for {name value} [::python::eval summary] {
    puts [format "%-10s %s" $name $value]
}
