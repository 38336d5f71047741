#pragma once
// The one Qt application object a test program may have, made on first use,
// for tests of QObjects that post to the event loop. A program that links Qt
// Widgets gets a QApplication on Qt's offscreen platform, so widget tests
// never touch the display of whoever runs them.

#include "Support/Eventually.h"

#ifdef QT_WIDGETS_LIB
#include <QApplication>
#else
#include <QCoreApplication>
#endif

#include <csignal>
#include <cstdlib>

namespace tobrin::test {

inline void ensureQtApplication() {
    static int argc = 1;
    static char name[] = "tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance()) return;
#ifdef QT_WIDGETS_LIB
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // The offscreen platform says what it cannot do (raise a window, size
    // hints); tests print nothing on success.
    static const QtMessageHandler standard = qInstallMessageHandler(nullptr);
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext& context, const QString& message) {
        if (message.startsWith(QStringLiteral("This plugin does not support")) ||
            message.startsWith(QStringLiteral("QStandardPaths: XDG_RUNTIME_DIR not set")))
            return;
        standard(type, context, message);
    });
    new QApplication(argc, argv); // lives as long as the test program
#else
    new QCoreApplication(argc, argv);
#endif
    // A write to a pipe whose reader has gone fails instead of ending the tests.
    ::signal(SIGPIPE, SIG_IGN);
}

// Runs the event loop until `predicate` holds or the time runs out.
template <typename Predicate>
bool until(Predicate predicate, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    return eventually(
        [&] {
            QCoreApplication::processEvents();
            return predicate();
        },
        timeout);
}

} // namespace tobrin::test
