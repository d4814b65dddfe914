# Shared set-up of the pytarn Tcl suites; every .test file sources it first and
# ends with `finish`. Run a suite as: pytarnsh tests/tcl/NAME.test
package require tcltest 2
namespace import ::tcltest::*

# Variant installation roots, made by the build beside the host.
set rootsDir [expr {[info exists env(PYTARN_TEST_ROOTS)] ? $env(PYTARN_TEST_ROOTS)
                    : [file join [file dirname [info nameofexecutable]] tests tcl roots]}]

# Runs the calling suite again in a pytarnsh whose helper module comes from the
# variant root NAME, unless this process already is one, and exits as it did.
proc useRoot {name} {
    set root [file join $::rootsDir $name]
    if {[info exists ::env(PYTARN_HOME)] && $::env(PYTARN_HOME) eq $root} return
    set ::env(PYTARN_HOME) $root
    exit [catch {exec [info nameofexecutable] $::argv0 {*}$::argv >@ stdout 2>@ stderr}]
}

if {$::pytarn::status != 0} {
    puts stderr "[file tail $argv0]: the bridge did not load"
    exit 1
}

proc readFile {path} {
    set chan [open $path]
    set text [read $chan]
    close $chan
    return $text
}

# Runs SCRIPT in a new pytarnsh with the variant root ROOT ("" for the main one).
# Returns a dict: code (exit status, or "hung" when it was killed after childBound
# milliseconds), stdout, stderr, ms (wall time from the start of
# SCRIPT to the end of the process: start-up, slow under sanitizers, is left out).
set childBound 120000
proc child {root script} {
    close [file tempfile startFile]
    set chan [file tempfile scriptFile]
    puts $chan [list apply {{file} {
        set chan [open $file w]
        puts $chan [clock milliseconds]
        close $chan
    }} $startFile]
    puts -nonewline $chan $script
    close $chan
    close [file tempfile errFile]
    set saved [array get ::env PYTARN_HOME]
    set ::env(PYTARN_HOME) [expr {$root eq "" ? "" : [file join $::rootsDir $root]}]
    # The child's stdout is read through a pipe, which ends when the child does,
    # so that a hung child is killed after a bound (code "hung") instead of
    # hanging the suite.
    set pipe [open |[list [info nameofexecutable] $scriptFile 2>$errFile] r]
    fconfigure $pipe -blocking 0
    set ::childEnded($pipe) 0
    set ::childOut($pipe) ""
    fileevent $pipe readable [list apply {{pipe} {
        if {[catch {append ::childOut($pipe) [read $pipe]}] || [eof $pipe]} {
            set ::childEnded($pipe) 1
        }
    }} $pipe]
    set guard [after $::childBound [list set ::childEnded($pipe) hung]]
    vwait ::childEnded($pipe)
    after cancel $guard
    set end [clock milliseconds]
    set code 0
    if {$::childEnded($pipe) eq "hung"} {
        catch {exec kill -KILL {*}[pid $pipe]}
        set code hung
    }
    fconfigure $pipe -blocking 1
    if {[catch {close $pipe} msg opts] && $code ne "hung"} {
        lassign [dict get $opts -errorcode] kind pid status
        set code [expr {$kind eq "CHILDSTATUS" ? $status : $msg}]
    }
    set stdout $::childOut($pipe)
    unset ::childEnded($pipe) ::childOut($pipe)
    set start [string trim [readFile $startFile]]
    set result [dict create code $code ms [expr {$start eq "" ? -1 : $end - $start}] \
                    stdout $stdout stderr [readFile $errFile]]
    file delete $scriptFile $startFile $errFile
    unset ::env(PYTARN_HOME)
    array set ::env $saved
    return $result
}

# Waits in the event loop until VAR is set and returns its value, or
# "timed out" after a bound that only a hang can reach.
proc waitFor {var {ms 10000}} {
    if {![info exists $var]} {
        set guard [after $ms [list set $var "timed out"]]
        vwait $var
        after cancel $guard
    }
    return [set $var]
}

# Reports and ends the suite; the exit status says whether any test failed.
proc finish {} {
    set failed $::tcltest::numTests(Failed)
    cleanupTests
    if {$failed > 0} {exit 1}
}
