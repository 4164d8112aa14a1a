#include "ExchangeTimingPort.h"

#include <algorithm>
#include <cstdio>

namespace {

double millisecondsBetween(ExchangeTimingPort::Clock::time_point from,
                           ExchangeTimingPort::Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

std::string fixed(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f", value);
    return text;
}

} // namespace

ExchangeTimingPort::ExchangeTimingPort(std::unique_ptr<SerialPort> inner) : port(std::move(inner)) {}

UsbTypes::IoResult ExchangeTimingPort::writeDataImpl(unsigned char* data, unsigned long long size) {
    const auto when = Clock::now();
    const UsbTypes::IoResult result = port->writeDataImpl(data, size);
    if (result.status != UsbTypes::Ok || result.bytes == 0) {
        return result;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (!writing) {
        firstWrite = when;
        writing = true;
    }
    lastWrite = when;
    done.push_back({sinceFirstWriteMs(when), 0, 0});
    return result;
}

UsbTypes::IoResult ExchangeTimingPort::readDataImpl(unsigned char* data, unsigned long long size,
                                                    int timeoutMs) {
    const UsbTypes::IoResult result = port->readDataImpl(data, size, timeoutMs);
    if (result.status != UsbTypes::Ok || result.bytes == 0) {
        return result;
    }
    const auto when = Clock::now();
    std::lock_guard<std::mutex> lock(mutex);
    if (!done.empty()) {
        done.back().answerMs = millisecondsBetween(lastWrite, when);
        ++done.back().reads;
    }
    return result;
}

std::vector<ExchangeTimingPort::Exchange> ExchangeTimingPort::exchanges() const {
    std::lock_guard<std::mutex> lock(mutex);
    return done;
}

double ExchangeTimingPort::readsPerAnswer() const {
    std::size_t answers = 0;
    std::size_t reads = 0;
    for (const Exchange& exchange : exchanges()) {
        answers += exchange.reads > 0 ? 1 : 0;
        reads += exchange.reads;
    }
    return answers == 0 ? 0 : static_cast<double>(reads) / static_cast<double>(answers);
}

std::string ExchangeTimingPort::summary() const {
    std::vector<double> times;
    for (const Exchange& exchange : exchanges()) {
        if (exchange.reads > 0) {
            times.push_back(exchange.answerMs);
        }
    }
    if (times.empty()) {
        return "no exchange was answered";
    }
    std::sort(times.begin(), times.end());
    const auto at = [&](double share) { return times[static_cast<std::size_t>(share * (times.size() - 1))]; };
    return std::to_string(times.size()) + " answered exchanges, write to answer: median " + fixed(at(0.5)) +
           " ms, 90% " + fixed(at(0.9)) + " ms, longest " + fixed(times.back()) + " ms; " +
           fixed(readsPerAnswer()) + " reads per answer";
}

void ExchangeTimingPort::writeTrace(std::ostream& out) const {
    for (const Exchange& exchange : exchanges()) {
        out << fixed(exchange.startMs) << ' ' << fixed(exchange.answerMs) << ' ' << exchange.reads << '\n';
    }
}

double ExchangeTimingPort::sinceFirstWriteMs(Clock::time_point when) const {
    return millisecondsBetween(firstWrite, when);
}
