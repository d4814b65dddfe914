#include "ForkedOutput.h"

#include <Python.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <unistd.h>

namespace pytarn::python_api::forked {

namespace {

std::string waiting[2]; // stdout, stderr

void writeOut(int channel, std::size_t length) {
    std::string text = waiting[channel].substr(0, length);
    waiting[channel].erase(0, length);
    const int fd = channel == 1 ? STDERR_FILENO : STDOUT_FILENO;
    const char* next = text.data();
    std::size_t left = text.size();
    Py_BEGIN_ALLOW_THREADS
    while (left > 0) {
        const ssize_t written = ::write(fd, next, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) break; // as with puts, a failed write is not reported
        next += written;
        left -= static_cast<std::size_t>(written);
    }
    Py_END_ALLOW_THREADS
}

} // namespace

void write(bool to_stderr, const char* text, std::size_t length) {
    const int channel = to_stderr ? 1 : 0;
    waiting[channel].append(text, length);
    const std::size_t end = waiting[channel].rfind('\n');
    if (end != std::string::npos) writeOut(channel, end + 1);
}

void flush() {
    for (int channel : {0, 1}) {
        if (!waiting[channel].empty()) writeOut(channel, waiting[channel].size());
    }
}

} // namespace pytarn::python_api::forked
