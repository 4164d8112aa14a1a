#include "ProgramRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace programtest {
namespace {

std::vector<std::string> buildEnvironment(const ProgramRun::Environment& overrides) {
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) {
            merged[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : overrides) {
        if (value) {
            merged[name] = *value;
        } else {
            merged.erase(name);
        }
    }
    std::vector<std::string> result;
    for (const auto& [name, value] : merged) {
        result.push_back(name + "=" + value);
    }
    return result;
}

ProgramExit decode(int status) {
    ProgramExit exit;
    if (WIFEXITED(status)) {
        exit.exited = true;
        exit.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        exit.termSignal = WTERMSIG(status);
    }
    return exit;
}

} // namespace

ProgramRun::ProgramRun(const std::string& executable, const Environment& overrides,
                       const std::string& outputDir)
    : stdoutPath(outputDir + "/stdout.txt"), stderrPath(outputDir + "/stderr.txt") {
    // Everything the child needs is prepared before fork.
    const std::vector<std::string> environment = buildEnvironment(overrides);
    std::vector<char*> envp;
    for (const auto& entry : environment) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(executable.c_str()), nullptr};
    const int out = ::open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = ::open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

    childPid = ::fork();
    if (childPid == 0) {
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execve(executable.c_str(), argv, envp.data());
        ::_exit(127);
    }
    ::close(out);
    ::close(err);
}

ProgramRun::~ProgramRun() {
    if (childPid > 0 && !result) {
        ::kill(childPid, SIGKILL);
        int status = 0;
        ::waitpid(childPid, &status, 0);
    }
}

void ProgramRun::sendSignal(int signalNumber) {
    if (childPid > 0 && !result) {
        ::kill(childPid, signalNumber);
    }
}

std::optional<ProgramExit> ProgramRun::wait(std::chrono::milliseconds timeout) {
    if (result || childPid <= 0) {
        return result;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        const pid_t done = ::waitpid(childPid, &status, WNOHANG);
        if (done == childPid) {
            result = decode(status);
            return result;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string ProgramRun::standardError() const {
    return readFile(stderrPath);
}

std::string ProgramRun::standardOutput() const {
    return readFile(stdoutPath);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace programtest
