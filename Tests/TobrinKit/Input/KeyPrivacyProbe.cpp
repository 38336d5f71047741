// A process that only listens: it runs the key monitor on the X server named
// by its first argument until it has heard the number of events its second
// argument gives, then prints that count. The privacy test runs it under
// strace and checks that nothing it heard left it.
#include "TobrinKit/Input/KeyMonitor.h"
#include "TobrinKit/Input/X11/X11Keys.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::atomic<unsigned long> heard{0};
    tobrin::KeyMonitor monitor([&](const tobrin::KeyEvent&) { heard.fetch_add(1); },
                               {tobrin::X11Keys::factory(argv[1])}, "x11");
    if (!monitor.start()) return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    const unsigned long expected = std::strtoul(argv[2], nullptr, 10);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (heard.load() < expected && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    monitor.stop();
    std::printf("done %lu\n", heard.load());
    std::fflush(stdout);
    return 0;
}
