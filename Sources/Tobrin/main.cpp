// Entry point. For now the command line knows --version and --help; the tray
// application and the diagnostics arrive with the application model.
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("Tobrin %s\n", TOBRIN_VERSION);
        return 0;
    }
    std::printf("Usage: tobrin [--version | --help]\n");
    return argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) ? 0 : 1;
}
