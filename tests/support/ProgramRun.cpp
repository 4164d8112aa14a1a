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

ProgramRun::ProgramRun(const std::string& executable, const Environment& overrides, const std::string& dir)
    : outputDir(dir) {
    // Everything the child needs is prepared before fork.
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        merged[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    for (const auto& [name, value] : overrides) {
        value ? void(merged[name] = *value) : void(merged.erase(name));
    }
    std::vector<std::string> entries;
    for (const auto& [name, value] : merged) {
        entries.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& entry : entries) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(executable.c_str()), nullptr};
    const int out = ::open((dir + "/stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = ::open((dir + "/stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

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
        ::waitpid(childPid, nullptr, 0);
    }
}

void ProgramRun::sendSignal(int signalNumber) {
    if (childPid > 0 && !result) {
        ::kill(childPid, signalNumber);
    }
}

std::optional<ProgramExit> ProgramRun::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!result && childPid > 0) {
        int status = 0;
        if (::waitpid(childPid, &status, WNOHANG) == childPid) {
            result = WIFEXITED(status) ? ProgramExit{true, WEXITSTATUS(status), 0}
                                       : ProgramExit{false, -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0};
        } else if (std::chrono::steady_clock::now() >= deadline) {
            break;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return result;
}

std::string ProgramRun::standardError() const {
    return readFile(outputDir + "/stderr.txt");
}

std::string ProgramRun::standardOutput() const {
    return readFile(outputDir + "/stdout.txt");
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace programtest
