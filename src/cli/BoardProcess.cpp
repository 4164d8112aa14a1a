#include "BoardProcess.h"

BoardProcess::BoardProcess(std::vector<std::string> arguments, Listener listener)
    : arguments(std::move(arguments)), listener(std::move(listener)) {}

BoardProcess::~BoardProcess() {
    if (started) {
        join();
    }
}

bool BoardProcess::start() {
    if (!Platform::startChild(Platform::executablePath(), arguments, child)) {
        return false;
    }
    started = true;
    reader = std::thread([this] { readReports(); });
    return true;
}

void BoardProcess::stop() {
    if (started) {
        Platform::stopChild(child);
    }
}

void BoardProcess::readReports() {
    std::string pending;
    char buffer[4096];
    for (;;) {
        const std::size_t got = Platform::readChildOutput(child, buffer, sizeof(buffer));
        if (got == 0) {
            BoardEvent end;
            end.kind = BoardEvent::Kind::End;
            listener(end);
            return;
        }
        pending.append(buffer, got);
        std::size_t end = 0;
        while ((end = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            if (auto event = WorkerReport::parse(line)) {
                listener(*event);
            }
        }
    }
}

int BoardProcess::join() {
    if (!started) {
        return -1;
    }
    started = false;
    reader.join();
    return Platform::waitChild(child);
}
