#include "PelorinTray/SingleInstance.h"
#include "PelorinTray/TrayApp.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QSocketNotifier>
#include <QStandardPaths>

#include <csignal>
#include <sys/signalfd.h>

// pelorin-tray: the host's state in the desktop's tray, and a menu for it.
namespace pelorin {
namespace {

// Must come before the first thread, which inherits it.
int takeSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

int main(int argumentCount, char** arguments)
{
    const int signals = takeSignals();
    QApplication app(argumentCount, arguments);
    QApplication::setApplicationName("pelorin-tray");
    QApplication::setApplicationDisplayName("Pelorin");
    QApplication::setApplicationVersion(PELORIN_VERSION);
    QApplication::setQuitOnLastWindowClosed(false);

    QCommandLineParser parser;
    parser.setApplicationDescription("Pelorin's host in the desktop's tray: state, pairing, paired phones");
    const QCommandLineOption directory("support-dir", "Directory of the host's control socket", "DIR");
    const QCommandLineOption language("language", "zh or en, instead of the locale's", "LANGUAGE");
    const QCommandLineOption atLogin("at-login", "Wait a moment for the desktop's tray");
    parser.addOptions({directory, language, atLogin});
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(app);

    TrayApp::Options options;
    options.supportDirectory
        = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/Pelorin";
    if (parser.isSet(directory)) options.supportDirectory = parser.value(directory);
    options.runsDefaultHost = !parser.isSet(directory);
    options.isAtLogin = parser.isSet(atLogin);
    Texts texts;
    if (parser.isSet(language))
        texts = Texts(parser.value(language) == "zh" ? Texts::Language::chinese : Texts::Language::english);

    SingleInstance instance(options.supportDirectory);
    if (!instance.claim()) return 0;
    TrayApp tray(texts, options);
    tray.onQuit = [] { QApplication::quit(); };
    instance.onShow = [&tray] { tray.showUp(); };
    QSocketNotifier ending(signals, QSocketNotifier::Read);
    QObject::connect(&ending, &QSocketNotifier::activated, [] { QApplication::quit(); });
    tray.start();
    return QApplication::exec();
}

} // namespace
} // namespace pelorin

int main(int argumentCount, char** arguments)
{
    return pelorin::main(argumentCount, arguments);
}
