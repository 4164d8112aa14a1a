// Whole loads through the real window over a pseudo-terminal with the
// simulated board: the time from the press of the upload button to the
// success text, for the 37312-byte STM32 image and a 1 MiB ESP32 image, and
// beside each the same transfer driven at the protocol level (the payload
// handler and its threads alone; flashBinary alone). The ratio shows what
// the controller and the window add: for the STM32 the search, the erase
// command (sent as soon as the board has answered the search) and the
// progress display; for the ESP32 the worker and the dispatcher.
//
// The ESP32 also runs over a link paced at 921600 baud with a 1 MiB image of
// machine code (a slice of this program), once through the window and once
// through the loader alone with the image compressed, as merid-flash sends
// it: the window's flash set against merid-flash's on the same image and link.
// The same image as one part of a multi-part flash through the flows, on links
// paced at 115200 and 921600 baud, is loaded twice on one chip: the first load
// writes it, the repeat finds the region's MD5 equal and writes nothing.
//
// The STM32 cases run unpaced and over links paced at 115200 and 921600 baud
// with a 1 ms turnaround, as a USB serial bridge answers. The idle case keeps
// the connected window for 10 s, from a second after a search, once the
// window has drawn its answer, and reports the share of a core the program's
// threads took and their wake-ups (context switches) per second; the
// simulated board's threads are left out. The reconnect case times the
// window's end while its reconnect worker restores the link after a reboot,
// the one state of a quit that no button reaches (bench/quit times the
// others on the whole program).
//
// The window is shown on the display (make bench runs under Xvfb). Logging
// is off unless MERID_LOG_LEVEL says otherwise, as in the protocol benchmarks.
#include "BoardLink.h"
#include "DeviceSimulator.h"
#include "Esp32Flash.h"
#include "EspRomBridge.h"
#include "GlobalHandlerEvents.h"
#include "MainWindow.h"
#include "MainWindowTestAccess.h"
#include "MeridEspSerialFlasher.h"
#include "MeridResources.h"
#include "PayloadHandler.h"
#include "UsbCommunication.h"

#include <benchmark/benchmark.h>
#include <gtkmm.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kAddress = 2;
constexpr std::size_t kStm32Image = 37312;
constexpr std::size_t kEsp32Image = 1u << 20;
constexpr const char* kFlashedText = "Устройство прошито успешно";
// Runs of each case; the comparison takes the best.
constexpr int kRuns = 3;

// Seconds of each measured case, by name, for the figures at the end.
std::map<std::string, double> gSeconds;

Bytes makeImage(std::size_t size, std::uint32_t seed) {
    Bytes bytes(size);
    for (auto& byte : bytes) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    return bytes;
}

// `size` bytes of this program's machine code, from behind its headers,
// repeated when the program is shorter: an image that compresses as
// firmware does.
Bytes codeImage(std::size_t size) {
    std::ifstream in("/proc/self/exe", std::ios::binary);
    const Bytes program((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t skip = program.size() > 0x2000 ? 0x1000 : 0;
    Bytes image;
    while (image.size() < size && program.size() > skip) {
        image.insert(image.end(), program.begin() + static_cast<std::ptrdiff_t>(skip), program.end());
    }
    image.resize(size);
    return image;
}

// A scratch file holding `bytes`, removed with the object.
class ImageFile {
public:
    explicit ImageFile(const Bytes& bytes) {
        const char* dir = std::getenv("TMPDIR");
        std::string pattern = std::string(dir != nullptr ? dir : "/tmp") + "/merid-loads-bench-XXXXXX";
        const int fd = mkstemp(pattern.data());
        if (fd >= 0) {
            close(fd);
        }
        path = pattern;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    ~ImageFile() { std::remove(path.c_str()); }
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    std::string path;
};

// The simulated board: one payload device with an ESP32 behind it, on a
// link paced at `baud` (0: as fast as the pseudo-terminal goes).
class Board {
public:
    explicit Board(std::uint32_t linkBaud = 0) : chip(std::make_shared<EspRomSimulator>()), baud(linkBaud) {
        simulator.addDevice(SimDevice::standard(kAddress, "MeridKestal STM32"));
        EspRomBridge::install(simulator, chip);
        if (baud != 0) {
            simulator.setPacing(baud, std::chrono::milliseconds(1));
        }
        started = simulator.start();
        // The connection dialog lists the board's port beside the machine's.
        if (started) {
            setenv("MERID_EXTRA_PORTS", simulator.slavePath().c_str(), 1);
        }
    }

    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip;
    std::uint32_t baud;
    bool started = false;
};

// Runs the toolkit's events until `done` holds or `timeout` has passed.
bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto context = Glib::MainContext::get_default();
    // Wakes the loop now and then, so that the test of `done` is not left
    // waiting for an event.
    auto tick = Glib::signal_timeout().connect([] { return true; }, 5);
    const auto deadline = Clock::now() + timeout;
    bool result = done();
    while (!result && Clock::now() < deadline) {
        context->iteration(true);
        result = done();
    }
    tick.disconnect();
    return result;
}

Glib::RefPtr<Gtk::Application>& application() {
    static Glib::RefPtr<Gtk::Application> app = [] {
        int argc = 1;
        static char name[] = "bench_loads";
        static char* args[] = {name, nullptr};
        char** argv = args;
        g_resources_register(merid_ui_get_resource());
        g_resources_register(merid_icons_get_resource());
        g_resources_register(merid_firmware_get_resource());
        return Gtk::Application::create(argc, argv, "", Gio::APPLICATION_FLAGS_NONE);
    }();
    return app;
}

template <typename T> T* widget(MainWindow& window, const char* id) {
    return dynamic_cast<T*>(MainWindowTestAccess::builder(window)->get_object(id).get());
}

// The window as a user drives it: connected to the board in the dialog, the
// board searched, the method chosen and the file picked in the file dialog.
class WindowSession {
public:
    WindowSession() {
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        window = MainWindow::getInstance("MeridKestalUtility", application());
        window->show();
    }

    ~WindowSession() {
        delete window;
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        pumpUntil([] { return !Gtk::Main::events_pending(); }, std::chrono::seconds(1));
    }

    WindowSession(const WindowSession&) = delete;
    WindowSession& operator=(const WindowSession&) = delete;

    // Empty when the window is ready for the upload, else the step that failed.
    std::string prepare(const Board& board, const std::string& method, const std::string& path) {
        if (!board.started) {
            return "no pty";
        }
        if (!connect(board.simulator.slavePath(), board.baud)) {
            return "cannot connect in the dialog";
        }
        if (!search()) {
            return "the search did not find the board and its fields";
        }
        if (method.empty()) {
            return {};
        }
        if (!choose(method)) {
            return "cannot choose " + method;
        }
        if (!pick(method, path)) {
            return "cannot pick the file in the file dialog";
        }
        return {};
    }

    MainWindow& mainWindow() { return *window; }

    // Seconds the window's end takes: the teardown the program's quit runs.
    double close() {
        const auto start = Clock::now();
        delete window;
        window = nullptr;
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

    // Seconds from the press to the success text; negative when it never showed.
    double upload(std::chrono::milliseconds timeout) {
        auto* label = widget<Gtk::Label>(*window, "LoadStatusOverlayLabel");
        const auto pressed = Clock::now();
        widget<Gtk::Button>(*window, "UploadButton")->clicked();
        const bool shown =
            pumpUntil([&] { return label->get_text() == kFlashedText && window->get_sensitive(); }, timeout);
        return shown ? std::chrono::duration<double>(Clock::now() - pressed).count() : -1;
    }

private:
    bool connect(const std::string& port, std::uint32_t baud) {
        widget<Gtk::MenuItem>(*window, "ConnectImageMenuItem")->activate();
        auto* ports = widget<Gtk::ComboBoxText>(*window, "PortsListComboTextBox");
        ports->set_active_text(port);
        widget<Gtk::ComboBoxText>(*window, "BaudratesListComboTextBox")
            ->set_active_text(std::to_string(baud == 0 ? 921600 : baud));
        widget<Gtk::Button>(*window, "DialogConnectButton")->clicked();
        auto* dialog = widget<Gtk::Dialog>(*window, "ConnectionDialog");
        return pumpUntil([&] { return !dialog->get_visible(); }, std::chrono::seconds(5)) &&
               MainWindowTestAccess::usb(*window).isConnected();
    }

    // The board and all its fields known, as after a search the user waited for.
    bool search() {
        widget<Gtk::Button>(*window, "SearchDeviceButton")->clicked();
        DeviceHandler* model = MainWindowTestAccess::deviceHandler(*window);
        const std::size_t fields = SimDevice::standard(kAddress, "").getFields().size();
        return pumpUntil(
            [&] {
                std::lock_guard<std::recursive_mutex> lock(model->getMutex());
                App::Device* device = model->getDevice(kAddress);
                return device != nullptr && device->getFieldCount() == fields;
            },
            std::chrono::seconds(10));
    }

    bool choose(const std::string& method) {
        auto* methods = widget<Gtk::ComboBoxText>(*window, "FirmwareMethodComboBoxText");
        methods->set_active_text(method);
        return methods->get_active_text() == method;
    }

    // The file dialog runs in a nested loop; a timer set before the click
    // answers it once the chooser has taken the file.
    bool pick(const std::string& method, const std::string& path) {
        auto* dialog = widget<Gtk::FileChooserDialog>(*window, "OpenFileDialog");
        unsigned asked = 0;
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        auto answer = Glib::signal_timeout().connect(
            [&] {
                if (!dialog->get_visible()) {
                    return true;
                }
                // The chooser loads its folder in the background and may
                // drop a name given too early: it is given again.
                if (asked++ % 10 == 0) {
                    dialog->set_filename(path);
                    return true;
                }
                const bool taken = dialog->get_filename() == path;
                if (taken || Clock::now() > deadline) {
                    dialog->response(taken ? Gtk::RESPONSE_OK : Gtk::RESPONSE_CANCEL);
                    return false;
                }
                return true;
            },
            20);
        widget<Gtk::Button>(*window,
                            method == "ESP32" ? "SelectFirmwareEsp32Button" : "SelectFirmwareStm32Button")
            ->clicked();
        answer.disconnect();
        auto* entry = widget<Gtk::Entry>(*window, method == "ESP32" ? "SelectFirmwareSearchEntryEsp32"
                                                                    : "SelectFirmwareSearchEntryStm32");
        return entry->get_tooltip_text() == path;
    }

    MainWindow* window = nullptr;
};

// Each case keeps its best run for the comparison: the figures compare what
// each path costs, not the machine's other load.
void record(benchmark::State& state, const std::string& name, double seconds, std::size_t bytes) {
    state.SetIterationTime(seconds);
    state.counters["ms"] = seconds * 1000.0;
    state.counters["bytes_per_s"] = static_cast<double>(bytes) / seconds;
    const auto known = gSeconds.find(name);
    gSeconds[name] = known == gSeconds.end() ? seconds : std::min(known->second, seconds);
}

// The STM32 transfer as the protocol runs it, without the window: the file
// handed to the payload handler, until the board holds the finished image.
void BM_Stm32Protocol(benchmark::State& state) {
    const auto baud = static_cast<std::uint32_t>(state.range(0));
    for (auto _ : state) {
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        Board board(baud);
        const Bytes bytes = makeImage(kStm32Image, 7);
        ImageFile image(bytes);
        BoardLink link;
        link.usb().portName = board.simulator.slavePath();
        link.usb().baudrate = baud == 115200 ? UsbTypes::Baud115200 : UsbTypes::Baud921600;
        if (!board.started || link.usb().connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
            state.SkipWithError("cannot open the simulated board's port");
            break;
        }
        link.devices().addDevice(DeviceInfo{kAddress, 1, 0, {}, 0, {}, 0, {}});
        link.startThreads();

        const auto start = Clock::now();
        MessageArgs args;
        args.device = kAddress;
        args.path = image.path;
        link.protocol().onMessage(FILE_START_MSG, &args);
        link.protocol().generateResponse(FILE_WRITE_MSG);
        const auto limit = start + std::chrono::minutes(5);
        while (!board.simulator.finishedImage(kAddress, 0) && Clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        const bool ok = board.simulator.finishedImage(kAddress, 0) == bytes;
        link.close();
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        if (!ok) {
            state.SkipWithError("the board did not receive the image");
            break;
        }
        record(state, "stm32-protocol-" + std::to_string(baud), seconds, bytes.size());
    }
}

void BM_Stm32ThroughTheWindow(benchmark::State& state) {
    const auto baud = static_cast<std::uint32_t>(state.range(0));
    for (auto _ : state) {
        Board board(baud);
        const Bytes bytes = makeImage(kStm32Image, 7);
        ImageFile image(bytes);
        WindowSession session;
        const std::string failed = session.prepare(board, "STM32", image.path);
        if (!failed.empty()) {
            state.SkipWithError(failed.c_str());
            break;
        }
        const double seconds = session.upload(std::chrono::minutes(5));
        // The text shows when the finish step leaves; the board completes
        // the file on its arrival.
        pumpUntil([&] { return board.simulator.finishedImage(kAddress, 0).has_value(); },
                  std::chrono::seconds(5));
        if (seconds < 0 || board.simulator.finishedImage(kAddress, 0) != bytes) {
            state.SkipWithError("the load did not finish with the image on the board");
            break;
        }
        record(state, "stm32-window-" + std::to_string(baud), seconds, bytes.size());
    }
}

// The ESP32 flash as the loader runs it, without the window: a random image
// sent plain on an unpaced link (argument 0), or the machine-code image sent
// compressed on a link paced at the argument's baud rate.
void BM_Esp32Protocol(benchmark::State& state) {
    const auto baud = static_cast<std::uint32_t>(state.range(0));
    for (auto _ : state) {
        Board board(baud);
        const Bytes bytes = baud == 0 ? makeImage(kEsp32Image, 9) : codeImage(kEsp32Image);
        ImageFile image(bytes);
        UsbCommunication usb;
        usb.portName = board.simulator.slavePath();
        usb.baudrate = UsbTypes::Baud921600;
        if (!board.started || usb.connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
            state.SkipWithError("cannot open the simulated board's port");
            break;
        }
        MeridEspSerialFlasher::FlashOptions options{0, 1024, false};
        options.compress = baud != 0;
        std::string error;
        const auto start = Clock::now();
        const bool ok = MeridEspSerialFlasher::flashBinary(usb, image.path, options, {}, &error);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        usb.disconnect();
        if (!ok || board.chip->flash(0, kEsp32Image) != bytes) {
            state.SkipWithError(ok ? "the flash differs from the image" : error.c_str());
            break;
        }
        record(state, "esp32-protocol-" + std::to_string(baud), seconds, bytes.size());
        state.counters["syncs"] = board.chip->counters().syncs;
    }
}

// A first and a repeat load of the machine-code image at offset 0 through
// the flows, as merid-flash runs them (compressed, verified, unchanged parts
// left alone), on one chip behind a link paced at the argument's baud rate.
void BM_Esp32PartsFirstAndRepeat(benchmark::State& state) {
    const auto baud = static_cast<std::uint32_t>(state.range(0));
    const std::string name = "esp32-parts-" + std::to_string(baud);
    for (auto _ : state) {
        Board board(baud);
        const Bytes bytes = codeImage(kEsp32Image);
        ImageFile image(bytes);
        UsbCommunication usb;
        usb.portName = board.simulator.slavePath();
        usb.baudrate = baud == 115200 ? UsbTypes::Baud115200 : UsbTypes::Baud921600;
        if (!board.started || usb.connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
            state.SkipWithError("cannot open the simulated board's port");
            break;
        }
        Esp32Flash::Options options = Esp32Flash::defaults();
        options.skipUnchanged = true;
        double seconds[2] = {};
        std::vector<PartOutcome> outcomes[2];
        std::string error;
        for (int load = 0; load < 2 && error.empty(); ++load) {
            const auto start = Clock::now();
            Esp32Flash::runParts(usb, {{0, image.path}}, options, {}, outcomes[load], error);
            seconds[load] = std::chrono::duration<double>(Clock::now() - start).count();
        }
        usb.disconnect();
        const bool written = outcomes[0].size() == 1 && outcomes[0][0].written;
        const bool skipped = outcomes[1].size() == 1 && !outcomes[1][0].written;
        if (!error.empty() || !written || !skipped || board.chip->flash(0, kEsp32Image) != bytes) {
            state.SkipWithError(error.empty() ? "the first load did not write or the repeat did"
                                              : error.c_str());
            break;
        }
        record(state, name + "-first", seconds[0], bytes.size());
        record(state, name + "-repeat", seconds[1], bytes.size());
        state.SetIterationTime(seconds[0] + seconds[1]);
        state.counters["repeat_ms"] = seconds[1] * 1000.0;
    }
}

// The same two images through the window.
void BM_Esp32ThroughTheWindow(benchmark::State& state) {
    const auto baud = static_cast<std::uint32_t>(state.range(0));
    for (auto _ : state) {
        Board board(baud);
        const Bytes bytes = baud == 0 ? makeImage(kEsp32Image, 9) : codeImage(kEsp32Image);
        ImageFile image(bytes);
        WindowSession session;
        const std::string failed = session.prepare(board, "ESP32", image.path);
        if (!failed.empty()) {
            state.SkipWithError(failed.c_str());
            break;
        }
        const double seconds = session.upload(std::chrono::minutes(5));
        if (seconds < 0 || board.chip->flash(0, kEsp32Image) != bytes) {
            state.SkipWithError("the flash did not finish with the image in the chip");
            break;
        }
        record(state, "esp32-window-" + std::to_string(baud), seconds, bytes.size());
        state.counters["syncs"] = board.chip->counters().syncs;
    }
}

// The window's end while its reconnect worker restores the link after a
// reboot (the window's reboot operation starts it; no button does): the
// teardown that a quit runs, half a second into the reconnect.
void BM_QuitDuringReconnect(benchmark::State& state) {
    for (auto _ : state) {
        Board board;
        WindowSession session;
        const std::string failed = session.prepare(board, "", "");
        if (!failed.empty()) {
            state.SkipWithError(failed.c_str());
            break;
        }
        session.mainWindow().rebootDevice();
        if (!pumpUntil([&] { return board.simulator.counters(kAddress)->rebootCommands >= 1; },
                       std::chrono::seconds(5))) {
            state.SkipWithError("the board got no reboot");
            break;
        }
        pumpUntil([] { return false; }, std::chrono::milliseconds(500));
        const double seconds = session.close();
        state.SetIterationTime(seconds);
        state.counters["ms"] = seconds * 1000.0;
    }
}

// The toolkit's own loop, with no test ticks, for `duration`.
void runLoopFor(std::chrono::milliseconds duration) {
    auto loop = Glib::MainLoop::create();
    Glib::signal_timeout().connect_once([&] { loop->quit(); }, static_cast<unsigned>(duration.count()));
    loop->run();
}

struct Usage {
    double cpuSeconds = 0;
    long switches = 0;
};

std::set<std::string> taskIds() {
    std::set<std::string> ids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.insert(entry.path().filename().string());
    }
    return ids;
}

// The CPU time and context switches of each of this process's threads,
// except the simulated board's: those stand in for the device, not for the
// program.
std::map<std::string, Usage> programUsage(const std::set<std::string>& boardThreads) {
    std::map<std::string, Usage> usage;
    for (const auto& id : taskIds()) {
        if (boardThreads.count(id) != 0) {
            continue;
        }
        const std::string task = "/proc/self/task/" + id;
        std::ifstream schedstat(task + "/schedstat");
        double nanoseconds = 0;
        schedstat >> nanoseconds;
        usage[id].cpuSeconds = nanoseconds / 1e9;
        std::ifstream status(task + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                usage[id].switches += std::stol(line.substr(line.find(':') + 1));
            }
        }
    }
    return usage;
}

// What the threads alive at the end used since `start`; a thread that ended
// meanwhile takes its figures with it.
Usage usageSince(const std::map<std::string, Usage>& start, const std::map<std::string, Usage>& end) {
    Usage total;
    for (const auto& [id, now] : end) {
        const auto then = start.find(id);
        const Usage before = then == start.end() ? Usage{} : then->second;
        total.cpuSeconds += now.cpuSeconds - before.cpuSeconds;
        total.switches += now.switches - before.switches;
    }
    return total;
}

// The connected window after a search, left alone: the toolkit's own loop
// runs (no test ticks), the protocol threads wait for something to do.
void BM_IdleConnected(benchmark::State& state) {
    constexpr int kIdleSeconds = 10;
    for (auto _ : state) {
        const auto before = taskIds();
        Board board;
        std::set<std::string> boardThreads;
        for (const auto& id : taskIds()) {
            if (before.count(id) == 0) {
                boardThreads.insert(id);
            }
        }
        WindowSession session;
        const std::string failed = session.prepare(board, "", "");
        if (!failed.empty()) {
            state.SkipWithError(failed.c_str());
            break;
        }
        // The window's answer to the search (the new row, the buttons'
        // transitions) is drawn first; idle starts once it has settled.
        runLoopFor(std::chrono::seconds(1));
        const auto start = programUsage(boardThreads);
        runLoopFor(std::chrono::seconds(kIdleSeconds));
        const Usage used = usageSince(start, programUsage(boardThreads));
        const double share = used.cpuSeconds / kIdleSeconds;
        const double wakeups = static_cast<double>(used.switches) / kIdleSeconds;
        state.SetIterationTime(kIdleSeconds);
        state.counters["core_percent"] = share * 100.0;
        state.counters["wakeups_per_s"] = wakeups;
        std::printf("idle, connected after a search, %d s: %.3f %% of a core, %.0f wake-ups per second\n",
                    kIdleSeconds, share * 100.0, wakeups);
    }
}

void printComparison(const char* what, std::size_t bytes, const char* link, const std::string& protocol,
                     const std::string& window) {
    const auto p = gSeconds.find(protocol);
    const auto w = gSeconds.find(window);
    if (p == gSeconds.end() || w == gSeconds.end()) {
        std::printf("%s: not measured\n", what);
        return;
    }
    std::printf("%s, %zu bytes, %s, best of %d: protocol %.1f ms (%.0f bytes/s), press to success "
                "text %.1f ms "
                "(%.0f bytes/s), ratio %.2f, the window adds %.1f ms\n",
                what, bytes, link, kRuns, p->second * 1000.0, static_cast<double>(bytes) / p->second,
                w->second * 1000.0, static_cast<double>(bytes) / w->second, w->second / p->second,
                (w->second - p->second) * 1000.0);
}

// The first and the repeat load of one multi-part flash case.
void printRepeat(std::uint32_t baud) {
    const std::string name = "esp32-parts-" + std::to_string(baud);
    const auto first = gSeconds.find(name + "-first");
    const auto repeat = gSeconds.find(name + "-repeat");
    if (first == gSeconds.end() || repeat == gSeconds.end()) {
        std::printf("ESP32 first and repeat load, paced %u baud: not measured\n", baud);
        return;
    }
    std::printf("ESP32 load of %zu bytes of machine code at 0 through the flows, paced %u baud, best of %d: "
                "first %.1f ms, repeat (unchanged, nothing written) %.1f ms\n",
                kEsp32Image, baud, kRuns, first->second * 1000.0, repeat->second * 1000.0);
}

} // namespace

BENCHMARK(BM_Stm32Protocol)
    ->Arg(0)
    ->Arg(115200)
    ->Arg(921600)
    ->Iterations(kRuns)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Stm32ThroughTheWindow)
    ->Arg(0)
    ->Arg(115200)
    ->Arg(921600)
    ->Iterations(kRuns)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Esp32Protocol)
    ->Arg(0)
    ->Arg(921600)
    ->Iterations(kRuns)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Esp32ThroughTheWindow)
    ->Arg(0)
    ->Arg(921600)
    ->Iterations(kRuns)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Esp32PartsFirstAndRepeat)
    ->Arg(115200)
    ->Arg(921600)
    ->Iterations(kRuns)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuitDuringReconnect)->Iterations(kRuns)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleConnected)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

int main(int argc, char** argv) {
    // The log sinks stay quiet unless MERID_LOG_LEVEL says otherwise.
    setenv("MERID_LOG_LEVEL", "OFF", 0);
    setenv("NO_AT_BRIDGE", "1", 0);
    application();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printComparison("STM32 load", kStm32Image, "pty unpaced", "stm32-protocol-0", "stm32-window-0");
    printComparison("STM32 load", kStm32Image, "paced 115200 baud", "stm32-protocol-115200",
                    "stm32-window-115200");
    printComparison("STM32 load", kStm32Image, "paced 921600 baud", "stm32-protocol-921600",
                    "stm32-window-921600");
    printComparison("ESP32 flash", kEsp32Image, "pty unpaced", "esp32-protocol-0", "esp32-window-0");
    printComparison("ESP32 flash of machine code, protocol compressed", kEsp32Image, "paced 921600 baud",
                    "esp32-protocol-921600", "esp32-window-921600");
    printRepeat(115200);
    printRepeat(921600);
    return 0;
}
