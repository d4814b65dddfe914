// ::pytarn::console: Python's interactive prompt inside the host, on the main Tcl
// thread. Lines gather into a block until ::python::check calls it complete; the
// helper module's runConsole then runs the block as Python's own prompt would.
// While the console waits for a line it waits in Tcl's event loop, so timers and
// the requests of Python threads are carried out as at the Tcl prompt.
//
// On a terminal, and when built with GNU readline, lines are edited through
// readline's callback interface (history, TAB through ::python::tabComplete, Ctrl-C
// discards the line); otherwise they are read from Tcl's stdin channel, so that
// input Tcl has already buffered (a piped session) reaches the console in order.
#include "HostCommands.h"
#include "PythonEnvironment.h"

#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#ifdef PYTARNSH_READLINE
#include <fcntl.h>
#include <readline/history.h>
#include <readline/readline.h>

#include <csignal>
#include <cstring>
#endif

namespace pytarnsh {

namespace {

enum class Input { Line, End, Interrupt };

struct Reading {
    Input kind = Input::End;
    std::string text; // Tcl (UTF-8) text of the line, without its newline
};

void writeTo(int which, const std::string& text) {
    if (Tcl_Channel chan = Tcl_GetStdChannel(which)) {
        Tcl_WriteChars(chan, text.data(), static_cast<int>(text.size()));
        Tcl_Flush(chan);
    }
}

// Evaluates the command WORDS at global level; the words are released after.
int invoke(Tcl_Interp* interp, std::vector<Tcl_Obj*> words) {
    for (Tcl_Obj* word : words) Tcl_IncrRefCount(word);
    const int code = Tcl_EvalObjv(interp, static_cast<int>(words.size()), words.data(),
                                  TCL_EVAL_GLOBAL);
    for (Tcl_Obj* word : words) Tcl_DecrRefCount(word);
    return code;
}

Tcl_Obj* text(const std::string& s) { return Tcl_NewStringObj(s.data(), static_cast<int>(s.size())); }

// A Python expression that evaluates to the str SOURCE whatever characters it holds.
std::string pythonString(const std::string& source) {
    return pythonBytes(source.data(), source.size()) + ".decode('utf-8', 'replace')";
}

// Lines from Tcl's stdin channel, waiting in the event loop.
Reading readChannel(const std::string& prompt) {
    writeTo(TCL_STDOUT, prompt);
    Reading reading;
    Tcl_Channel in = Tcl_GetStdChannel(TCL_STDIN);
    if (!in) return reading;
    Tcl_DString blocking;
    Tcl_DStringInit(&blocking);
    Tcl_GetChannelOption(nullptr, in, "-blocking", &blocking);
    Tcl_SetChannelOption(nullptr, in, "-blocking", "0");
    Tcl_Obj* line = Tcl_NewObj();
    Tcl_IncrRefCount(line);
    for (;;) {
        if (Tcl_GetsObj(in, line) >= 0) {
            reading.kind = Input::Line;
            reading.text = Tcl_GetString(line);
            break;
        }
        if (Tcl_Eof(in) || !Tcl_InputBlocked(in)) break;
        int ready = 0;
        auto setReady = [](ClientData flag, int) { *static_cast<int*>(flag) = 1; };
        Tcl_CreateChannelHandler(in, TCL_READABLE, setReady, &ready);
        while (!ready) Tcl_DoOneEvent(0);
        Tcl_DeleteChannelHandler(in, setReady, &ready);
    }
    Tcl_DecrRefCount(line);
    Tcl_SetChannelOption(nullptr, in, "-blocking", Tcl_DStringValue(&blocking));
    Tcl_DStringFree(&blocking);
    return reading;
}

#ifdef PYTARNSH_READLINE

// The readline callback interface carries no client data: the one console that
// is reading keeps its state here (main thread only).
struct LineState {
    Tcl_Interp* interp = nullptr;
    bool done = false;
    Reading reading;
    std::vector<std::string> completions; // native text
    int interrupt_pipe[2] = {-1, -1};
} line_state;

void onSigint(int) {
    const char byte = 0;
    [[maybe_unused]] ssize_t written = write(line_state.interrupt_pipe[1], &byte, 1);
}

void onLine(char* line) {
    rl_callback_handler_remove(); // no new prompt until the console asks
    line_state.done = true;
    if (!line) return; // end of file
    if (*line) add_history(line);
    Tcl_DString utf;
    Tcl_ExternalToUtfDString(nullptr, line, -1, &utf);
    std::free(line);
    try { // nothing may unwind through readline's frames
        line_state.reading = {Input::Line, Tcl_DStringValue(&utf)};
    } catch (const std::bad_alloc&) {
        line_state.reading = {};
    }
    Tcl_DStringFree(&utf);
}

void onReadable(ClientData, int) { rl_callback_read_char(); }

void onInterrupt(ClientData, int) {
    char bytes[16];
    while (read(line_state.interrupt_pipe[0], bytes, sizeof bytes) > 0) {
    }
    rl_free_line_state();
    rl_callback_sigcleanup();
    rl_callback_handler_remove();
    line_state.reading.kind = Input::Interrupt;
    line_state.done = true;
}

char* nextCompletion(const char*, int state) {
    static std::size_t index = 0;
    if (state == 0) index = 0;
    if (index >= line_state.completions.size()) return nullptr;
    return strdup(line_state.completions[index++].c_str());
}

// Completes the word before the cursor through ::python::tabComplete; on a blank
// line TAB indents, as it does at Python's prompt.
char** completeWord(const char* word, int end) {
    const std::string before(rl_line_buffer, static_cast<std::size_t>(end));
    if (before.find_first_not_of(" \t") == std::string::npos) {
        rl_insert_text("    ");
        return nullptr;
    }
    line_state.completions.clear();
    Tcl_DString utf;
    Tcl_ExternalToUtfDString(nullptr, before.c_str(), -1, &utf);
    const int code = invoke(line_state.interp, {Tcl_NewStringObj("::python::tabComplete", -1),
                                                Tcl_NewStringObj(Tcl_DStringValue(&utf), -1)});
    Tcl_DStringFree(&utf);
    int count = 0;
    Tcl_Obj** words = nullptr;
    if (code != TCL_OK || Tcl_ListObjGetElements(nullptr, Tcl_GetObjResult(line_state.interp),
                                                 &count, &words) != TCL_OK)
        count = 0;
    for (int i = 0; i < count; ++i) {
        Tcl_DString native;
        Tcl_UtfToExternalDString(nullptr, Tcl_GetString(words[i]), -1, &native);
        line_state.completions.emplace_back(Tcl_DStringValue(&native));
        Tcl_DStringFree(&native);
    }
    Tcl_ResetResult(line_state.interp);
    return line_state.completions.empty() ? nullptr : rl_completion_matches(word, nextCompletion);
}

char** complete(const char* word, int, int end) {
    rl_attempted_completion_over = 1; // never file names
    rl_completion_append_character = '\0';
    try {
        return completeWord(word, end);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Characters that end the word TAB completes: all but those of dotted names.
char word_breaks[] = " \t\n`~!@#$%^&*()-=+[{]}\\|;:'\",<>/?";

// Sets readline up for the console; false when the interrupt pipe cannot be made.
bool startReadline(Tcl_Interp* interp) {
    line_state.interp = interp;
    if (line_state.interrupt_pipe[0] < 0 &&
        pipe2(line_state.interrupt_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    rl_readline_name = "python";
    rl_catch_signals = 0; // SIGINT is the console's own while it reads
    rl_attempted_completion_function = complete;
    rl_completer_word_break_characters = word_breaks;
    return true;
}

Reading readTerminal(const std::string& prompt) {
    if (Tcl_Channel out = Tcl_GetStdChannel(TCL_STDOUT)) Tcl_Flush(out);
    line_state.done = false;
    line_state.reading = {};
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = onSigint;
    sigemptyset(&action.sa_mask);
    // Ignored since start-up, Ctrl-C stays ignored here too, as at python3's prompt.
    sigaction(SIGINT, nullptr, &previous);
    if ((previous.sa_flags & SA_SIGINFO) || previous.sa_handler != SIG_IGN)
        sigaction(SIGINT, &action, nullptr);
    Tcl_CreateFileHandler(line_state.interrupt_pipe[0], TCL_READABLE, onInterrupt, nullptr);
    Tcl_CreateFileHandler(STDIN_FILENO, TCL_READABLE, onReadable, nullptr);
    rl_callback_handler_install(prompt.c_str(), onLine);
    while (!line_state.done) Tcl_DoOneEvent(0);
    Tcl_DeleteFileHandler(STDIN_FILENO);
    Tcl_DeleteFileHandler(line_state.interrupt_pipe[0]);
    sigaction(SIGINT, &previous, nullptr);
    if (line_state.reading.kind == Input::Interrupt) writeTo(TCL_STDOUT, "\n");
    return line_state.reading;
}

#endif

// Gives Tcl's stdin channel back the file handler that its own channel handlers
// need, which the console's handler on the same descriptor replaced.
void restoreStdinInterest() {
    if (Tcl_Channel in = Tcl_GetStdChannel(TCL_STDIN)) {
        auto none = [](ClientData, int) {};
        Tcl_CreateChannelHandler(in, TCL_READABLE, none, nullptr);
        Tcl_DeleteChannelHandler(in, none, nullptr);
    }
}

// True when the command that just failed was interrupted (Ctrl-C).
bool interrupted(Tcl_Interp* interp) {
    Tcl_Obj* options = Tcl_GetReturnOptions(interp, TCL_ERROR);
    Tcl_IncrRefCount(options);
    Tcl_Obj* key = Tcl_NewStringObj("-errorcode", -1);
    Tcl_IncrRefCount(key);
    Tcl_Obj* code = nullptr;
    const bool result = Tcl_DictObjGet(nullptr, options, key, &code) == TCL_OK && code &&
                        std::string(Tcl_GetString(code)) == "PYTHON KeyboardInterrupt";
    Tcl_DecrRefCount(key);
    Tcl_DecrRefCount(options);
    return result;
}

// Runs one complete block; TCL_OK with *leave set when it raised SystemExit.
// Ctrl-C that comes just outside the block's own code still only ends the block.
int runBlock(Tcl_Interp* interp, const std::string& source, bool* leave) {
    const std::string call = "__import__('OrvaShell').runConsole(" + pythonString(source) + ")";
    if (invoke(interp, {Tcl_NewStringObj("::python::eval", -1), text(call)}) != TCL_OK) {
        if (!interrupted(interp)) return TCL_ERROR;
        writeTo(TCL_STDERR, "KeyboardInterrupt\n");
        Tcl_ResetResult(interp);
        *leave = false;
        return TCL_OK;
    }
    *leave = std::string(Tcl_GetStringResult(interp)) == "1";
    Tcl_ResetResult(interp);
    return TCL_OK;
}

// 1 when SOURCE is a complete block. Invalid text counts as complete: running
// it shows the syntax error as Python's prompt shows it.
bool isComplete(Tcl_Interp* interp, const std::string& source) {
    const int code = invoke(interp, {Tcl_NewStringObj("::python::check", -1), text(source)});
    const bool complete = code != TCL_OK || std::string(Tcl_GetStringResult(interp)) != "0";
    Tcl_ResetResult(interp);
    return complete;
}

int console(Tcl_Interp* interp) {
    Tcl_Obj* status = Tcl_GetVar2Ex(interp, "::pytarn::status", nullptr, TCL_GLOBAL_ONLY);
    int loaded = 1;
    if (!status || Tcl_GetIntFromObj(nullptr, status, &loaded) != TCL_OK || loaded != 0) {
        Tcl_SetResult(interp, const_cast<char*>("the Python bridge is not loaded"), TCL_STATIC);
        return TCL_ERROR;
    }
    if (invoke(interp, {Tcl_NewStringObj("::python::eval", -1),
                        Tcl_NewStringObj("__import__('OrvaShell').consoleStart()", -1)}) !=
        TCL_OK)
        return TCL_ERROR;
    writeTo(TCL_STDOUT, std::string(Tcl_GetStringResult(interp)) + "\n");
    Tcl_ResetResult(interp);

    bool terminal = false;
#ifdef PYTARNSH_READLINE
    terminal = isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) && startReadline(interp);
#endif
    std::string source;
    int code = TCL_OK;
    for (bool leave = false; !leave && code == TCL_OK;) {
        const std::string prompt = source.empty() ? ">>> " : "... ";
#ifdef PYTARNSH_READLINE
        Reading reading = terminal ? readTerminal(prompt) : readChannel(prompt);
#else
        Reading reading = readChannel(prompt);
#endif
        if (reading.kind == Input::End) {
            writeTo(TCL_STDOUT, "\n"); // the next prompt starts on a line of its own
            break;
        }
        if (reading.kind == Input::Interrupt) {
            writeTo(TCL_STDERR, "KeyboardInterrupt\n");
            source.clear();
            continue;
        }
        // A blank line at the first prompt is no block at all.
        if (source.empty() && reading.text.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        source += source.empty() ? reading.text : "\n" + reading.text;
        if (!isComplete(interp, source)) continue;
        code = runBlock(interp, source, &leave);
        source.clear();
    }
    if (terminal) restoreStdinInterest();
    return code;
}

int consoleCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 1) {
        Tcl_WrongNumArgs(interp, 1, objv, nullptr);
        return TCL_ERROR;
    }
    return tclGuard(interp, [&] { return console(interp); });
}

} // namespace

void registerConsoleCommand(Tcl_Interp* interp) {
    Tcl_CreateObjCommand(interp, "::pytarn::console", consoleCmd, nullptr, nullptr);
}

} // namespace pytarnsh
