#include "signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <memory>

#include "lumets_platform/file_descriptor.h"

namespace lumets::tool {
namespace {

volatile std::sig_atomic_t g_caught = 0;
int g_wakeWrite = -1;  // written from the handler, so not behind a holder

void OnSignal(int signal) {
    if (g_caught == 0) {
        g_caught = signal;
    }
    const int saved = errno;
    [[maybe_unused]] const ssize_t written = write(g_wakeWrite, "!", 1);
    errno = saved;
}

struct WakePipe {
    WakePipe() {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
            readEnd = std::make_unique<platform::CFileDescriptor>(ends[0]);
            writeEnd = std::make_unique<platform::CFileDescriptor>(ends[1]);
        }
    }
    std::unique_ptr<platform::CFileDescriptor> readEnd;
    std::unique_ptr<platform::CFileDescriptor> writeEnd;
};

WakePipe& Pipe() {
    static WakePipe pipe;
    return pipe;
}

}  // namespace

bool CSignals::Install() {
    if (!Pipe().writeEnd) {
        return false;
    }
    g_wakeWrite = Pipe().writeEnd->Get();
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    // Interrupted reads and writes carry on; the second signal takes the
    // default way out.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    bool ok = true;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ok = sigaction(signal, &action, nullptr) == 0 && ok;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    return ok;
}

int CSignals::Caught() {
    return g_caught;
}

int CSignals::Fd() {
    return Pipe().readEnd ? Pipe().readEnd->Get() : -1;
}

const char* CSignals::Name(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        default:
            return "a signal";
    }
}

}  // namespace lumets::tool
