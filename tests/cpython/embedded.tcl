# Runs CPython test modules inside the bridge: pytarnsh embedded.tcl MODULES OUT, with
# MODULES comma-separated as worker.py takes them. worker.py is found beside this
# script, whose directory pytarnsh puts first on sys.path.
lassign $argv modules out
::python::set modules $modules
::python::set out $out
::python::exec {
import worker
worker.run(modules.split(","), out)
}
