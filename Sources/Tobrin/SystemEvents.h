#pragma once

// What the system tells the application: it woke from sleep (systemd-logind's
// PrepareForSleep(false) on the system bus), or it asks the program to end
// (SIGTERM, SIGINT, SIGHUP), which is turned into an orderly quit of the event
// loop so the will-terminate path runs.

#include <QObject>
#include <QString>

class QSocketNotifier;

namespace tobrin::app {

class LogindWake : public QObject {
    Q_OBJECT
public:
    // Listens on the system bus (DBUS_SYSTEM_BUS_ADDRESS, else the standard
    // socket). Without a system bus it never fires; isConnected() says so.
    explicit LogindWake(QObject* parent = nullptr);
    bool isConnected() const { return connected_; }

signals:
    void woke();

private slots:
    void prepareForSleep(bool sleeping);

private:
    bool connected_ = false;
};

// Quits the application's event loop on SIGTERM, SIGINT or SIGHUP. One per
// process; the handler only writes a byte into a pipe that the event loop
// reads.
class QuitOnSignals : public QObject {
    Q_OBJECT
public:
    explicit QuitOnSignals(QObject* parent = nullptr);
    ~QuitOnSignals() override;

private slots:
    void signalled();

private:
    QSocketNotifier* notifier_ = nullptr;
};

} // namespace tobrin::app
