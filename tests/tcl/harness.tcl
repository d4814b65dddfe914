# Shared set-up of every suite, which ends with `finish`: pytarnsh tests/tcl/NAME.test
package require tcltest 2
namespace import ::tcltest::*
# Each case says when it starts, so that a suite cut off by its time limit names the case.
# A skipped case is named with its reason.
configure -verbose {body error start skip}

proc testEnv {name {default ""}} {
    expr {[info exists ::env($name)] && $::env($name) ne "" ? $::env($name) : $default}
}
set buildDir [file dirname [info nameofexecutable]]
set sourceDir [file dirname [file dirname [file dirname [file normalize [info script]]]]]
set rootsDir [testEnv PYTARN_TEST_ROOTS [file join $buildDir tests tcl roots]]
set sanitized [testEnv PYTARN_TEST_SANITIZED 0]
testConstraint wish [expr {[auto_execok wish8.6] ne "" &&
                           ([info exists env(DISPLAY)] || [auto_execok xvfb-run] ne "")}]
if {$::pytarn::status != 0} {
    puts stderr "[file tail $argv0]: the bridge did not load"
    exit 1
}

# Runs the calling suite again in the variant root NAME (unless it is one) and exits so.
proc useRoot {name} {
    set root [file join $::rootsDir $name]
    if {[testEnv PYTARN_HOME] eq $root} return
    set ::env(PYTARN_HOME) $root
    exit [catch {exec [info nameofexecutable] $::argv0 {*}$::argv >@ stdout 2>@ stderr}]
}

proc readFile {path} {
    set chan [open $path]
    try {read $chan} finally {close $chan}
}
# Writes TEXT to a new temporary file and returns its name.
proc scriptFile {text} {
    set chan [file tempfile name .tcl]
    try {
        puts -nonewline $chan $text
        return $name
    } finally {close $chan}
}

# Runs ARGS from DIR with INPUT on stdin, ENV changed (name value ...; "" unsets): a dict of
# code (exit status, or "hung" once killed after childBound ms), stdout, stderr, end (ms).
set childBound 120000
proc run {dir env input args} {
    set saved {}
    foreach {name value} $env {
        lappend saved $name [array get ::env $name]
        if {$value eq ""} {unset -nocomplain ::env($name)} else {set ::env($name) $value}
    }
    close [file tempfile errFile]
    set here [pwd]
    cd $dir
    # Read through a pipe, which ends with the process, so that a hang is bounded.
    try {
        set pipe [open |[list {*}$args << $input 2> $errFile] r]
    } finally {
        cd $here
        foreach {name previous} $saved {
            unset -nocomplain ::env($name)
            array set ::env $previous
        }
    }
    fconfigure $pipe -blocking 0
    set ::runOut($pipe) ""
    fileevent $pipe readable [list apply {{pipe} {
        if {[catch {append ::runOut($pipe) [read $pipe]}] || [eof $pipe]} {
            set ::runEnded($pipe) 1
        }
    }} $pipe]
    waitFor ::runEnded($pipe) $::childBound hung
    set end [clock milliseconds]
    set code 0
    if {$::runEnded($pipe) eq "hung"} {
        catch {exec kill -KILL {*}[pid $pipe]}
        set code hung
    }
    fconfigure $pipe -blocking 1
    if {[catch {close $pipe} msg opts] && $code ne "hung"} {
        lassign [dict get $opts -errorcode] kind - status
        set code [expr {$kind eq "CHILDSTATUS" ? $status : $msg}]
    }
    try {
        dict create code $code stdout $::runOut($pipe) stderr [readFile $errFile] end $end
    } finally {
        unset ::runEnded($pipe) ::runOut($pipe)
        file delete $errFile
    }
}

# `run` of SCRIPT in a new pytarnsh of root ROOT ("": the main one), with ms: its run time.
proc child {root script} {
    close [file tempfile startFile]
    set file [scriptFile "[list apply {{f} {
        set c [open $f w]
        puts $c [clock milliseconds]
        close $c
    }} $startFile]\n$script"]
    set r [run [pwd] [list PYTARN_HOME [expr {$root eq "" ? "" : [file join $::rootsDir $root]}]] \
               "" [info nameofexecutable] $file]
    set start [string trim [readFile $startFile]]
    dict set r ms [expr {$start eq "" ? -1 : [dict get $r end] - $start}]
    file delete $file $startFile
    return $r
}

# {code stdout stderr} of a child, and whether it ended within the 2 s an exit may take.
proc exitOf {script {root ""}} {
    set r [child $root $script]
    list {*}[dict values [dict filter $r key code stdout stderr]] [expr {[dict get $r ms] < 2000}]
}

# Runs SCRIPT in the stock SHELL (wish8.6 under xvfb-run) from DIR, TCLLIBPATH=LIBPATH.
proc stockShell {shell dir libPath script} {
    set file [scriptFile $script]
    set command [list env LD_PRELOAD=[testEnv PYTARN_TEST_PRELOAD] $shell $file]
    if {$shell eq "wish8.6" && ![info exists ::env(DISPLAY)]} {
        set command [list xvfb-run -a {*}$command]
    }
    set r [run $dir [list TCLLIBPATH $libPath PYTARN_HOME ""] "" {*}$command]
    file delete $file
    return $r
}

proc scratchDir {name} {
    set dir [file join [testEnv TMPDIR /tmp] pytarn-$name-[pid]-[clock clicks]]
    file mkdir $dir
    file normalize $dir
}

# Waits in the event loop until VAR is set and returns it, or TIMEOUT after a bound
# that only a hang reaches.
proc waitFor {var {ms 60000} {timeout "timed out"}} {
    if {![info exists $var]} {
        set guard [after $ms [list set $var $timeout]]
        vwait $var
        after cancel $guard
    }
    set $var
}

# "ok" and the result of SCRIPT, or the last line of its error (the reference helper's
# traceback ends with "Type: text").
proc outcome {script} {
    if {[catch {uplevel 1 $script} message]} {
        return [lindex [split [string trimright $message \n] \n] end]
    }
    list ok $message
}

# One test per ID DESCRIPTION BODY RESULT in TABLE, each with the options OPTIONS.
proc cases {table args} {
    foreach {id description body result} $table {
        uplevel 1 [list test $id $description -body $body -result $result {*}$args]
    }
}

# Reports and ends the suite: 1 when a test failed; 77 (skipped, for CTest) when no test
# ran, for want of a program or display; else 0, the skipped cases named above. A case that
# a sanitizer build cannot run does not exist in that build, so its absence is no skip.
proc finish {} {
    set failed $::tcltest::numTests(Failed)
    set passed $::tcltest::numTests(Passed)
    set reasons [array names ::tcltest::skippedBecause]
    set wanting [llength [lsearch -all -inline -not $reasons unsanitized]]
    cleanupTests
    exit [expr {$failed ? 1 : !$passed && $wanting ? 77 : 0}]
}
