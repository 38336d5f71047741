#pragma once
// The one Qt application object a test program may have, made on first use,
// for tests of QObjects that post to the event loop.

#include <QCoreApplication>

#include <csignal>

namespace tobrin::test {

inline void ensureQtApplication() {
    static int argc = 1;
    static char name[] = "tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance()) return;
    new QCoreApplication(argc, argv); // lives as long as the test program
    // A write to a pipe whose reader has gone fails instead of ending the tests.
    ::signal(SIGPIPE, SIG_IGN);
}

} // namespace tobrin::test
