# Calls across the bridge, each beside the same work done on the calling thread
# (the baseline extension): mean cost each way, the latency distribution of
# 1,000,000 round trips each way, nesting, and 4 and 64 Python threads at once.
# Means and samples are in nanoseconds.
source [file join [file dirname [info script]] lib.tcl]

set calls [scaled 30000] ;# per round; three rounds
::python::exec {x = 1}
::python::exec {import benchtools, threading, time}

# Tcl to Python, timed in C around each bytecode-compiled command.
foreach {key bridge baseline} {
    eval {::python::eval 1}       {::baseline::eval 1}
    exec {::python::exec {x = 1}} {::baseline::exec {x = 1}}
    get  {::python::get x}        {::baseline::get x}
    set  {::python::set x 1}      {::baseline::set x 1}
} {
    compare tcl2py.$key 3 $calls [list bench::time %N $bridge] [list bench::time %N $baseline]
}

# Python to Tcl, timed in C around each call of the bound function. The
# baseline runs the same Python on the Tcl thread, calling Tcl directly.
foreach {key arguments} {
    eval {('set x 1',)}
    call {('set', 'x', 1)}
    get  {('x',)}
    set  {('x', 1)}
} {
    compare py2tcl.$key 3 $calls \
        [list ::python::eval "benchtools.time_calls(tcl.$key, $arguments, %N)"] \
        [list ::baseline::eval "benchtools.time_calls(benchtools.tcl_$key, $arguments, %N)"]
}

# Calls with words instead of source text. A command made from Python,
# called from Tcl with two small arguments, beside the same callable behind a
# Tcl_CreateObjCommand on the Tcl thread; tcl.call beside tcl.eval of the
# same command; ::pytarn::call beside ::python::eval of the same call and
# beside the same call made on the Tcl thread (::baseline::call).
::python::exec {
def add(a, b):
    return a + b
tcl.createcommand('addCreated', add)
}
::pytarn::createFunction addFunction add
::baseline::eval {benchtools.createcommand('addBaseline', add)}
foreach {key bridge} {
    created.command  {addCreated 1 2}
    created.function {addFunction 1 2}
} {
    compare $key 3 $calls [list bench::time %N $bridge] {bench::time %N {addBaseline 1 2}}
}
compare calls.call 3 $calls \
    {::python::eval {benchtools.time_calls(tcl.call, ('set', 'x', 1), %N)}} \
    {::python::eval {benchtools.time_calls(tcl.eval, ('set x 1',), %N)}}
compare calls.pytarn 3 $calls \
    {bench::time %N {::pytarn::call add 1 2}} {bench::time %N {::python::eval {add(1, 2)}}}
compare calls.pytarn.thread 3 $calls \
    {bench::time %N {::pytarn::call add 1 2}} {bench::time %N {::baseline::call add 1 2}}

# Each call timed alone.
set trips [scaled 1000000]
record latency.calls $trips
bench::time $trips {::python::eval 1} [dataFile tcl2py.bridge.i64]
bench::time $trips {::baseline::eval 1} [dataFile tcl2py.baseline.i64]
::python::eval "benchtools.time_calls(tcl.eval, ('set x 1',), $trips,\
    '[dataFile py2tcl.bridge.i64]')"
::baseline::eval "benchtools.time_calls(benchtools.tcl_eval, ('set x 1',), $trips,\
    '[dataFile py2tcl.baseline.i64]')"

# Nesting: each level is one call Tcl to Python and one Python to Tcl.
set depth 200
proc nestBridge {n} {
    if {$n == 0} {return 0}
    ::python::eval "nest_bridge($n)"
}
proc nestBaseline {n} {
    if {$n == 0} {return 0}
    ::baseline::eval "nest_baseline($n)"
}
::python::exec {
def nest_bridge(n):
    return tcl.eval(f'nestBridge {n - 1}')
def nest_baseline(n):
    return benchtools.tcl_eval(f'nestBaseline {n - 1}')
}
record nest.depth $depth
compare nest 3 [scaled 20] \
    "expr {\[bench::time %N {nestBridge $depth}\] / $depth}" \
    "expr {\[bench::time %N {nestBaseline $depth}\] / $depth}"

# Python threads calling tcl.eval at once: calls per second in total, beside
# one thread making the same number of calls.
::python::exec {
def calls_per_second(threads, total):
    each = total // threads
    def work():
        for _ in range(each):
            tcl.eval('set x 1')
    workers = [threading.Thread(target=work) for _ in range(threads)]
    start = time.perf_counter()
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    return threads * each / (time.perf_counter() - start)
}
# 64 threads have no goal: they show whether the hand-off collapses when
# far more threads wait than there are cores.
compare threads 3 [scaled 40000] \
    {::python::eval {calls_per_second(4, %N)}} \
    {::python::eval {calls_per_second(1, %N)}}
compare threads.64 3 [scaled 40000] \
    {::python::eval {calls_per_second(64, %N)}} \
    {::python::eval {calls_per_second(1, %N)}}
