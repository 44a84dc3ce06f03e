// Runs a piece of the runtime in a forked child with the simulated module
// installed: exits, aborts, daemons and replaced processes end the child,
// not the test.
#pragma once

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/platform.h"
#include "sim/sim_fixture.h"
#include "sim/sim_platform.h"

namespace infrtest {

struct Child {
    pid_t pid = -1;
    std::string errPath;
};

// Starts `body` in a child whose standard error goes to a file of the test's
// directory; a body that returns ends the child with 0.
inline Child start(const simtest::TempModule& m, const std::function<void()>& body)
{
    Child c;
    c.errPath = m.dir() + "/../stderr";
    std::fflush(nullptr);
    c.pid = ::fork();
    if (c.pid == 0) {
        int fd = ::open(c.errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fd, 2);
        ::close(fd);
        sim::SimPlatform platform(m.dir());
        plat::ScopedPlatform scope(platform);
        body();
        ::_exit(0);
    }
    return c;
}

inline int wait(const Child& c)
{
    int status = 0;
    while (::waitpid(c.pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

struct Outcome {
    int status;
    std::string err;
};

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline Outcome run(const simtest::TempModule& m, const std::function<void()>& body)
{
    Child c = start(m, body);
    int status = wait(c);
    return {status, readFile(c.errPath)};
}

inline bool aborted(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
inline bool exitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

// Lines of a state file of the module that contain `needle`.
inline std::vector<std::string> linesWith(const simtest::TempModule& m, const std::string& file,
                                          const std::string& needle)
{
    std::vector<std::string> out;
    std::istringstream in(readFile(m.host("sim/" + file)));
    for (std::string line; std::getline(in, line);)
        if (line.find(needle) != std::string::npos) out.push_back(line);
    return out;
}

// Waits (real time, at most 60 s) until `done` holds.
inline bool waitFor(const std::function<bool()>& done)
{
    for (int i = 0; i < 6000; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

} // namespace infrtest
