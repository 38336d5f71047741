#pragma once

// The key source of Wayland sessions and the console: every evdev keyboard,
// each read by an EvdevReader, while keyboards come and go. Which keyboards
// exist is the business of a KeyboardWatch (libudev on a real system); this
// part only reads descriptors, so it runs on pipes as well as on devices.
//
// Thread contract: see KeySource. A keyboard that goes away (unplugged) has its
// held keys released and is dropped; the others go on. One that arrives is
// read from then on.

#include <memory>
#include <string>
#include <vector>

#include "TobrinKit/Input/EvdevReader.h"
#include "TobrinKit/Input/KeySource.h"

namespace tobrin {

// Finds the keyboards and follows them as they come and go.
class KeyboardWatch {
public:
    virtual ~KeyboardWatch() = default;

    // Starts watching and opens the keyboards present now, for reading. False,
    // with `error` set to a sentence a user can read, when keyboards exist but
    // none can be read.
    virtual bool open(std::vector<int>& keyboards, std::string& error) = 0;
    // Becomes readable when keyboards may have arrived; -1 for a watch that
    // never sees any.
    virtual int fd() const = 0;
    // After fd() became readable: opens the keyboards that arrived since.
    virtual void arrived(std::vector<int>& keyboards) = 0;
    // Stops watching (the keyboards' descriptors belong to the source).
    virtual void close() = 0;
};

class EvdevKeySource final : public KeySource {
public:
    explicit EvdevKeySource(std::unique_ptr<KeyboardWatch> watch);
    ~EvdevKeySource() override;

    bool open(std::string& error) override;
    void run(KeyStream& stream) override;
    void interrupt() override;

private:
    std::unique_ptr<KeyboardWatch> watch_;
    std::vector<std::unique_ptr<EvdevReader>> readers_;
    int wake_; // eventfd, readable once interrupt() was called
};

} // namespace tobrin
