# Conversion of large values each way: 1,000,000 integers as a list, a dict of
# 100,000 entries, a 10 MiB string. Each is timed beside the same conversion on
# the calling thread (the baseline extension); the list also beside building
# it in Tcl with lappend. Times are in nanoseconds, medians of five rounds (one
# conversion of a 10 MiB string takes a few milliseconds, so one round's
# preemption would decide a median of three);
# each round starts from freshly made values, and freeing the previous result
# happens outside the timed part.
source [file join [file dirname [info script]] lib.tcl]

set listSize [scaled 1000000]
set dictSize [scaled 100000]
set textUnit "pytarn benchmark" ;# 16 bytes
set textBytes [expr {[scaled 655360] * 16}]
record convert.list.size $listSize
record convert.dict.size $dictSize
record convert.text.bytes $textBytes

proc lappendList {n} {
    set values {}
    for {set i 0} {$i < $n} {incr i} {
        lappend values $i
    }
    return $values
}

proc dictOf {n} {
    set values [dict create]
    for {set i 0} {$i < $n} {incr i} {
        dict set values k$i $i
    }
    return $values
}

# Runs PREPARE untimed, then times SCRIPT once, at global level.
proc timed {prepare script} {
    uplevel #0 $prepare
    uplevel #0 [list bench::time 1 $script]
}

::python::exec "
list_size, dict_size, text_copies = $listSize, $dictSize, [expr {$textBytes / 16}]
def fresh(kind):
    global L, D, S
    L = D = S = None
    if kind == 'list':
        L = list(range(list_size))
    elif kind == 'dict':
        D = {f'k{i}': i for i in range(dict_size)}
    elif kind == 'text':
        S = '$textUnit' * text_copies
"

# Tcl to Python: the value is made anew each round (a list's integers have no
# text yet), and the Python name it replaces is cleared first.
foreach {kind make name} {
    list {lappendList $listSize}         L
    dict {dictOf $dictSize}              D
    text {string repeat $textUnit [expr {$textBytes / 16}]} S
} {
    set prepare "set value \[$make\]; ::python::exec {L = D = S = None}"
    compare convert.$kind.tcl2py 5 1 \
        [list timed $prepare "::python::set $name \$value"] \
        [list timed $prepare "::baseline::set $name \$value"]
}

# The dict again, read from Python by tcl.get (the baseline's tcl_get reads it on
# the same thread).
::python::exec {import benchtools}
::baseline::exec {import benchtools}
compare convert.dict.get 5 1 \
    [list timed "set value \[dictOf $dictSize\]; ::python::exec {D = None}" \
         {::python::exec {D = tcl.get('value')}}] \
    [list timed "set value \[dictOf $dictSize\]; ::baseline::exec {D = None}" \
         {::baseline::exec {D = benchtools.tcl_get('value')}}]

# Python to Tcl: the Tcl result replaces nothing.
foreach {kind name} {list L dict D text S} {
    set prepare "unset -nocomplain result; ::python::exec {fresh('$kind')}"
    compare convert.$kind.py2tcl 5 1 \
        [list timed $prepare "set result \[::python::eval $name\]"] \
        [list timed $prepare "set result \[::baseline::eval $name\]"]
}
unset -nocomplain result value

set fromLappend {}
for {set r 0} {$r < 3} {incr r} {
    lappend fromLappend [timed {unset -nocomplain value} {set value [lappendList $listSize]}]
}
record convert.list.lappend [median $fromLappend]
