// Temporary outputs and interrupts. One mutex guards the set of temporary
// files; creating, renaming and removing a file all happen under it, and the
// interrupt thread takes it for good before removing what is left, so no
// file can be created or renamed after the clean-up has looked.
#include "files.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

#include "formats.h"

namespace qtool {

namespace {

std::mutex &Lock() {
    static std::mutex m;
    return m;
}

std::set<std::string> &Temps() {
    static std::set<std::string> s;
    return s;
}

bool stopping = false;  // guarded by Lock()

}  // namespace

std::string TempName(const std::string &target) {
    static std::atomic<unsigned> counter{0};
    return target + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

bool CreateTemp(const std::string &temp, const std::function<bool()> &create) {
    std::lock_guard<std::mutex> hold(Lock());
    if (stopping) throw FormatError(temp + ": interrupted");
    if (!create()) return false;
    Temps().insert(temp);
    return true;
}

bool CommitTemp(const std::string &temp, const std::string &target) {
    std::lock_guard<std::mutex> hold(Lock());
    const bool ok = !stopping && std::rename(temp.c_str(), target.c_str()) == 0;
    if (ok) Temps().erase(temp);
    return ok;
}

void DiscardTemp(const std::string &temp) {
    std::lock_guard<std::mutex> hold(Lock());
    std::remove(temp.c_str());
    Temps().erase(temp);
}

BatchProgress &Progress() {
    static BatchProgress p;
    return p;
}

void HandleInterrupts() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set] {
        int sig = 0;
        sigwait(&set, &sig);
        Lock().lock();  // held until the end: nothing is created or renamed any more
        stopping = true;
        for (const std::string &t : Temps()) std::remove(t.c_str());
        const BatchProgress &p = Progress();
        if (p.files > 0)
            std::fprintf(stderr,
                         "\nquarvel: interrupted after %ld of %ld files (%ld written); no partial output left\n",
                         p.filesDone.load(), p.files.load(), p.written.load());
        else
            std::fprintf(stderr, "\nquarvel: interrupted; no partial output left\n");
        std::fflush(stderr);
        _exit(128 + sig);
    }).detach();
}

}  // namespace qtool
