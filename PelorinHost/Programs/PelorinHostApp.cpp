#include "PelorinHost/HostController.h"
#include "PelorinHost/Linux/LinuxPlatform.h"
#include "PelorinHost/Linux/ServiceManager.h"
#include "PelorinHost/Shell/AgentCommands.h"
#include "PelorinHost/Shell/ControlClient.h"
#include "PelorinHost/Shell/Doctor.h"
#include "PelorinHost/Shell/PairingCommands.h"
#include "PelorinHost/Shell/StatusReport.h"
#include "PelorinHost/Trust/QrImage.h"
#include "PelorinNet/Files/AtomicFile.h"
#include "PelorinNet/Queue/QueuePool.h"

#include <atomic>
#include <charconv>
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <malloc.h>
#include <nlohmann/json.hpp>
#include <pthread.h>

// pelorin-host: the host itself, or a question to the one that runs.
namespace pelorin {
namespace {

constexpr int poolThreads = 4; // capture with encoding, session, cursor, and one for the rest
constexpr int quitDone = SIGUSR1; // how the controller wakes the main thread when all is let go of
constexpr int largeBlock = 256 << 10; // bytes; more than what is sent in motion, less than a picture
constexpr int codeSizePx = 600; // of a QR code in a file; a dozen pixels a module

struct Options {
    std::string supportDirectory;
    std::string logDirectory;
    std::string display;
    LogLevel logLevel = LogLevel::info;
    bool isHeadless = false;
    bool wantsJSON = false;
    std::string command; // of a running host; empty: be the host
    std::string device; // whom to remove
    std::string codeFile; // where the pairing link's QR code goes, too
};

// An X display, or the number of the display to stream.
std::optional<std::uint32_t> displayNumber(const std::string& text)
{
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

void addOptions(CLI::App& app, Options& options)
{
    const std::map<std::string, LogLevel> levels{{"debug", LogLevel::debug}, {"info", LogLevel::info},
        {"warning", LogLevel::warning}, {"error", LogLevel::error}};
    app.add_flag("--headless", options.isHeadless, "Run without tray and windows");
    app.add_option("--support-dir", options.supportDirectory, "Directory of settings and control socket");
    app.add_option("--log-dir", options.logDirectory, "Directory of connections.log");
    app.add_option("--log-level", options.logLevel, "debug, info, warning or error")
        ->transform(CLI::CheckedTransformer(levels, CLI::ignore_case));
    app.add_option("--display", options.display,
        "X display such as :7, or the id of the display that is streamed by default");
    app.set_version_flag("--version", "pelorin-host " PELORIN_VERSION);

    const std::pair<const char*, const char*> commands[] = {{"status", "Tell what the running host does"},
        {"pair", "Let one new phone in: prints its link and QR code, which anybody could use"},
        {"devices", "List the paired phones"}, {"remove", "Remove a paired phone and end its session"},
        {"disconnect", "End the running session"}, {"agents", "Tell what the coding agents here are doing"},
        {"agent-event",
            "Take note of what a hook or the status line of Claude Code is told on standard input"},
        {"doctor", "Look for what may be wrong here, and tell what to do"}, {"quit", "End the running host"}};
    for (const auto& [name, description] : commands) {
        auto* command = app.add_subcommand(name, description)->fallthrough();
        command->add_flag("--json", options.wantsJSON, "Print JSON");
        command->callback([&options, name] { options.command = name; });
    }
    app.get_subcommand("pair")->add_option(
        "--png", options.codeFile, "Write the QR code into this file as well, for its owner alone");
    app.get_subcommand("remove")->add_option("id", options.device, "As `devices` tells it")->required();
    app.require_subcommand(0, 1);
}

std::optional<std::string> readable(const std::string& command, const std::string& reply)
{
    if (command == "status") return readableStatus(reply);
    if (command == "pair") return PairingCommands::readablePair(reply);
    if (command == "devices") return PairingCommands::readableDevices(reply);
    if (command == "remove") return PairingCommands::readableRemoval(reply);
    if (command == "agents") return AgentCommands::readableDeck(reply);
    return std::nullopt;
}

std::optional<std::string> errorIn(const std::string& reply)
{
    const auto parsed = nlohmann::json::parse(reply, nullptr, false);
    if (!parsed.is_object() || !parsed.contains("error")) return std::nullopt;
    const auto& error = parsed["error"];
    return error.is_string() ? error.get<std::string>() : error.dump();
}

int fail(const std::string& why)
{
    std::fprintf(stderr, "pelorin-host: %s\n", why.c_str());
    return 1;
}

int writeCode(const std::string& reply, const std::string& file)
{
    const auto link = PairingCommands::linkIn(reply);
    const auto code = link ? QrImage::of(*link) : std::nullopt;
    const auto png = code ? code->png(codeSizePx) : std::nullopt;
    const bool isWritten = png
        && writeFileAtomically(
            std::filesystem::absolute(file), {reinterpret_cast<const char*>(png->data()), png->size()});
    return isWritten ? 0 : fail("cannot write " + file);
}

int ask(const Options& options, const std::filesystem::path& directory)
{
    nlohmann::json request{{"command", options.command}};
    if (!options.device.empty()) request["id"] = options.device;
    const auto reply
        = askHost(directory, request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    if (!reply) return fail(reply.error());
    const auto error = errorIn(*reply);
    if (error && !options.wantsJSON) return fail(*error);
    const auto text = options.wantsJSON ? std::nullopt : readable(options.command, *reply);
    std::fputs((text ? *text : *reply).c_str(), stdout);
    if (error) return 1;
    return options.codeFile.empty() ? 0 : writeCode(*reply, options.codeFile);
}

// An agent runs this and waits for it, and shows its user what it prints and that it failed: it does neither.
int passOnAgentEvent(const std::filesystem::path& directory)
{
    constexpr std::chrono::seconds patience{1};
    const auto request = AgentCommands::eventRequest(std::cin);
    if (!request) return 0;
    [[maybe_unused]] const auto reply = askHost(directory, *request, patience);
    return 0;
}

int examine(const Options& options, const std::filesystem::path& directory)
{
    std::signal(SIGPIPE, SIG_IGN);
    Log::setLevel(std::max(options.logLevel, LogLevel::warning)); // the findings say it in other words
    const auto platform = makeLinuxPlatform(displayNumber(options.display) ? "" : options.display);
    QueuePool pool(poolThreads);
    const auto findings = Doctor::diagnose(Doctor::examine(*platform, pool, directory));
    std::fputs((options.wantsJSON ? Doctor::json(findings) : Doctor::readable(findings)).c_str(), stdout);
    return Doctor::hasProblem(findings) ? 1 : 0;
}

// Must come before the first thread, which inherits it.
sigset_t takeSignals()
{
    std::signal(SIGPIPE, SIG_IGN); // a peer that is gone is an error code
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, quitDone}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Until the controller has let go of everything; a signal asks it to.
void waitForEnd(const sigset_t& signals, Confined<HostController>& controller)
{
    int signal = 0;
    while (sigwait(&signals, &signal) != 0 || signal != quitDone) {
        ServiceManager::tellStopping();
        controller.run([](HostController& running) { running.quit(); });
    }
}

int run(QueuePool& pool, const SessionSurroundings& surroundings, HostController::Places places,
    const sigset_t& signals)
{
    const QueueRef mainQueue = pool.makeQueue("main");
    const auto listen = [&pool](QueueRef queue, const std::string& address, std::uint16_t port) {
        return TcpListener::listen(pool, std::move(queue), address, port);
    };
    Confined<HostController> controller(mainQueue, [&] {
        return std::make_unique<HostController>(
            surroundings, listen, std::move(places), mainQueue, rendezvousSockets(pool));
    });
    std::atomic<int> exitCode = 0;
    const auto wakeMain = [mainThread = pthread_self()] { pthread_kill(mainThread, quitDone); };
    controller.run([&exitCode, wakeMain](HostController& starting) {
        starting.onQuit = wakeMain;
        const auto started = starting.start();
        if (started) return ServiceManager::tellReady();
        std::fprintf(stderr, "pelorin-host: %s\n", started.error().c_str());
        exitCode = 1;
        wakeMain();
    });
    waitForEnd(signals, controller);
    return exitCode;
}

int main(int argumentCount, char** arguments)
{
    CLI::App app("Pelorin Host: makes this desktop reachable from a paired phone");
    Options options;
    addOptions(app, options);
    CLI11_PARSE(app, argumentCount, arguments);
    Log::setLevel(options.logLevel);

    const auto system = makeLinuxSystem();
    HostController::Places places{
        system->supportDirectory(), system->logDirectory(), AgentPlaces::ofThisUser()};
    if (!options.supportDirectory.empty()) places.supportDirectory = options.supportDirectory;
    if (!options.logDirectory.empty()) places.logDirectory = options.logDirectory;
    if (options.command == "agent-event") return passOnAgentEvent(places.supportDirectory);
    if (options.command == "doctor") return examine(options, places.supportDirectory);
    if (!options.command.empty()) return ask(options, places.supportDirectory);

    // Left alone, malloc keeps blocks as large as the largest that was ever freed: pictures, for a host's
    // life.
    ::mallopt(M_MMAP_THRESHOLD, largeBlock);
    const sigset_t signals = takeSignals();
    std::unique_ptr<HostPlatform> platform; // outlive the pool, whose last tasks still use them
    std::optional<PairingStore> pairing;
    QueuePool pool(poolThreads);
    platform = makeLinuxPlatform(displayNumber(options.display) ? "" : options.display);
    pairing.emplace(places.supportDirectory, pool.makeQueue("dev.pelorin.host.pairing"));
    const QueueRef displayQueue = pool.makeQueue("dev.pelorin.host.display");
    auto virtualDisplays = std::make_shared<Confined<VirtualDisplayManager>>(
        displayQueue, [&displays = platform->displays(), displayQueue] {
            return std::make_unique<VirtualDisplayManager>(displays, displayQueue);
        });
    return run(pool, {*platform, pool, *pairing, displayNumber(options.display), std::move(virtualDisplays)},
        std::move(places), signals);
}

} // namespace
} // namespace pelorin

int main(int argumentCount, char** arguments)
{
    return pelorin::main(argumentCount, arguments);
}
