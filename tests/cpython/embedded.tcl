# worker.py inside the bridge: pytarnsh embedded.tcl MODULES OUT. pytarnsh puts this
# script's directory, and so worker.py's, first on sys.path.
::python::exec {__import__('worker').main()}
