#include "SystemEvents.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace tobrin::app {
namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int) {
    const int saved = errno;
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
    errno = saved;
}

} // namespace

LogindWake::LogindWake(QObject* parent) : QObject(parent) {
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) return;
    // Only logind's own signal counts: the sender is matched against the
    // owner of org.freedesktop.login1.
    connected_ = bus.connect(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                             QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
                             SLOT(prepareForSleep(bool)));
}

void LogindWake::prepareForSleep(bool sleeping) {
    if (!sleeping) emit woke();
}

QuitOnSignals::QuitOnSignals(QObject* parent) : QObject(parent) {
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    notifier_ = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &QuitOnSignals::signalled);
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

QuitOnSignals::~QuitOnSignals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(signal, &action, nullptr);
    if (signalPipe[0] >= 0) {
        ::close(signalPipe[0]);
        ::close(signalPipe[1]);
        signalPipe[0] = signalPipe[1] = -1;
    }
}

void QuitOnSignals::signalled() {
    char bytes[16];
    while (::read(signalPipe[0], bytes, sizeof bytes) > 0) {
    }
    QCoreApplication::quit();
}

} // namespace tobrin::app
