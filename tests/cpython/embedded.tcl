# Runs CPython test modules inside the bridge: pytarnsh embedded.tcl MODULES OUT PYTHON,
# with MODULES comma-separated as worker.py takes them, and PYTHON the standalone
# interpreter that tests may start as a child process.
lassign $argv modules out python
::python::set workerDir [file dirname [file normalize [info script]]]
::python::set modules $modules
::python::set out $out
::python::set python $python
::python::exec {
import sys
sys.path.insert(0, workerDir)
import worker
worker.run(modules.split(","), out, python)
}
