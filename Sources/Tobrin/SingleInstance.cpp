#include "SingleInstance.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tobrin::app {
namespace {

constexpr char request[] = "show-panel\n";

} // namespace

SingleInstance::SingleInstance(std::filesystem::path folder, QObject* parent) : QObject(parent) {
    lockFile_ = folder / "tobrin.lock";
    socketName_ = QString::fromStdString((folder / "tobrin.socket").string());
}

SingleInstance::~SingleInstance() { release(); }

std::filesystem::path SingleInstance::defaultFolder() {
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime == '/') return runtime;
    // Without a runtime folder (a bare console), one per user under /tmp.
    std::filesystem::path folder = std::filesystem::temp_directory_path() / ("tobrin-" + std::to_string(::getuid()));
    ::mkdir(folder.c_str(), 0700);
    return folder;
}

bool SingleInstance::tryLock() {
    if (lock_ < 0) lock_ = ::open(lockFile_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    return lock_ >= 0 && ::flock(lock_, LOCK_EX | LOCK_NB) == 0;
}

bool SingleInstance::askRunning() {
    QLocalSocket socket;
    socket.connectToServer(socketName_);
    if (!socket.waitForConnected(1000)) return false;
    socket.write(request);
    if (!socket.waitForBytesWritten(1000)) return false;
    // The answer says the panel request was taken.
    return socket.waitForReadyRead(2000) && socket.readAll().startsWith("ok");
}

SingleInstance::Outcome SingleInstance::claim(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        if (tryLock()) break;
        if (askRunning()) return Outcome::handedOver;
        // Held, but nobody answers: a Tobrin on its way out (relaunching,
        // quitting) or on its way in (not listening yet).
        if (std::chrono::steady_clock::now() >= deadline) return Outcome::noAnswer;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    // A socket left by a Tobrin that was killed: the lock proves nobody uses it.
    QLocalServer::removeServer(socketName_);
    server_->listen(socketName_);
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* client = server_->nextPendingConnection()) {
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            connect(client, &QLocalSocket::readyRead, this, [this, client] {
                if (!client->canReadLine()) return;
                if (client->readLine() == request) {
                    client->write("ok\n");
                    client->flush();
                    emit activated();
                }
                client->disconnectFromServer();
            });
        }
    });
    return Outcome::first;
}

void SingleInstance::release() {
    if (server_) {
        server_->close();
        delete server_;
        server_ = nullptr;
    }
    if (lock_ >= 0) {
        ::close(lock_);
        lock_ = -1;
    }
}

} // namespace tobrin::app
