#pragma once

// One Tobrin per user session: two engines would play every key twice. The
// first start takes an exclusive lock on a file in $XDG_RUNTIME_DIR (the
// kernel drops it when the process ends, however it ends) and listens on a
// local socket beside it; a later start finds the lock taken, asks the
// running one through the socket to bring its panel forward, and exits.

#include <QObject>
#include <QString>

#include <chrono>
#include <filesystem>

class QLocalServer;

namespace tobrin::app {

class SingleInstance : public QObject {
    Q_OBJECT
public:
    enum class Outcome {
        first,      // this process runs Tobrin
        handedOver, // the running one was asked to show its panel
        noAnswer,   // another holds the claim but did not answer in time
    };

    // `folder`: where the lock and the socket live ($XDG_RUNTIME_DIR, else
    // the temporary folder, with the user id in the names).
    explicit SingleInstance(std::filesystem::path folder = defaultFolder(), QObject* parent = nullptr);
    ~SingleInstance() override;

    static std::filesystem::path defaultFolder();

    // Claims the session, or hands over to the one that has it. A Tobrin that
    // is relaunching lets go of its claim before the new one starts, and this
    // waits up to `patience` for such a claim to be free.
    Outcome claim(std::chrono::milliseconds patience = std::chrono::milliseconds(5000));
    // Lets another start take over: stops answering and drops the lock.
    void release();

signals:
    // Another start asked for the panel.
    void activated();

private:
    bool tryLock();
    bool askRunning();

    std::filesystem::path lockFile_;
    QString socketName_;
    int lock_ = -1;
    QLocalServer* server_ = nullptr;
};

} // namespace tobrin::app
