// One Tobrin per session: the claim, the hand-over to the running one and the
// release for a relaunch, between real locks and sockets in a private folder.
#include "SingleInstance.h"

#include "Support/QtApplication.h"
#include "Support/TemporaryFolder.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <QThread>

#include <memory>

namespace tobrin::app {
namespace {

using namespace std::chrono_literals;
using Outcome = SingleInstance::Outcome;

// Claims from another thread (as another process would, blocking) while
// this one runs the event loop for the running instance.
// (A QThread: Qt's sockets want one.) `serve`: run this thread's event loop meanwhile.
Outcome claimElsewhere(const test::TemporaryFolder& folder, std::chrono::milliseconds patience, bool serve = true) {
    Outcome outcome = Outcome::noAnswer;
    std::unique_ptr<QThread> thread(QThread::create([&] { outcome = SingleInstance(folder.path()).claim(patience); }));
    thread->start();
    while (!thread->wait(2)) {
        if (serve) QCoreApplication::processEvents();
    }
    return outcome;
}

TEST(SingleInstance, ALaterStartAsksTheRunningOneForItsPanelAndARelaunchTakesOverTheReleasedClaim) {
    test::ensureQtApplication();
    test::TemporaryFolder folder;
    SingleInstance running(folder.path());
    ASSERT_EQ(running.claim(), Outcome::first);
    int activations = 0;
    QObject::connect(&running, &SingleInstance::activated, [&] { ++activations; });

    EXPECT_EQ(claimElsewhere(folder, 2000ms), Outcome::handedOver);
    EXPECT_TRUE(test::until([&] { return activations == 1; }, 2000ms));
    // While the running one does not answer (its event loop is not run), a
    // later start is not handed over and does not take the claim either.
    EXPECT_EQ(claimElsewhere(folder, 300ms, false), Outcome::noAnswer);

    // Released: the next start is the one that runs.
    running.release();
    EXPECT_EQ(claimElsewhere(folder, 2000ms), Outcome::first);
}

} // namespace
} // namespace tobrin::app
