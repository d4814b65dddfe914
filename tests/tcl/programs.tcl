# Running programs other than pytarnsh for the suites that need them: stock Tcl
# shells, an installed pytarnsh, cmake, tmux. Source it after harness.tcl.

# The build directory (where pytarnsh, libpytarn.so and pkgIndex.tcl are) and the
# source tree.
set buildDir [file dirname [info nameofexecutable]]
set sourceDir [file dirname [file dirname [file dirname [file normalize [info script]]]]]

proc testEnv {name {default ""}} {
    expr {[info exists ::env($name)] && $::env($name) ne "" ? $::env($name) : $default}
}

# Runs the command ARGS in directory DIR with INPUT on its stdin and the
# environment changed by ENVCHANGES (name value ...; an empty value unsets).
# Returns a dict: code (exit status), stdout, stderr.
proc run {dir envChanges input args} {
    set saved {}
    foreach {name value} $envChanges {
        lappend saved $name [array get ::env $name]
        if {$value eq ""} {unset -nocomplain ::env($name)} else {set ::env($name) $value}
    }
    close [file tempfile outFile]
    close [file tempfile errFile]
    set here [pwd]
    set code 0
    try {
        cd $dir
        exec {*}$args << $input > $outFile 2> $errFile
    } trap CHILDSTATUS {- opts} {
        set code [lindex [dict get $opts -errorcode] 2]
    } on error {message} {
        set code $message
    } finally {
        cd $here
        foreach {name previous} $saved {
            unset -nocomplain ::env($name)
            array set ::env $previous
        }
    }
    set result [dict create code $code stdout [readFile $outFile] stderr [readFile $errFile]]
    file delete $outFile $errFile
    return $result
}

# Writes SCRIPT to a temporary file and returns its name.
proc scriptFile {script} {
    set chan [file tempfile name .tcl]
    puts -nonewline $chan $script
    close $chan
    return $name
}

# Runs SCRIPT in the stock shell SHELL (tclsh8.6, or wish8.6 under xvfb-run when
# there is no display) from DIR with TCLLIBPATH=LIBPATH. A sanitizer build's
# library needs its runtime preloaded into a shell that was not built with it.
proc stockShell {shell dir libPath script} {
    set file [scriptFile $script]
    set command [list env LD_PRELOAD=[testEnv PYTARN_TEST_PRELOAD] $shell $file]
    if {$shell eq "wish8.6" && ![info exists ::env(DISPLAY)]} {
        set command [list xvfb-run -a {*}$command]
    }
    set result [run $dir [list TCLLIBPATH $libPath PYTARN_HOME ""] "" {*}$command]
    file delete $file
    return $result
}

# A new empty directory for one test; removed by the caller.
proc scratchDir {name} {
    set dir [file join [testEnv TMPDIR /tmp] pytarn-$name-[pid]-[clock clicks]]
    file mkdir $dir
    return [file normalize $dir]
}
