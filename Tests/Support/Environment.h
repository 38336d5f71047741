#pragma once
// Test helper: environment variables set for one test, the old values put back.

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace tobrin::test {

class Environment {
public:
    Environment() = default;
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    void set(const char* name, const std::optional<std::string>& value) {
        if (!saved_.contains(name)) {
            const char* old = std::getenv(name);
            saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
        }
        put(name, value);
    }
    ~Environment() {
        for (const auto& [name, value] : saved_) put(name.c_str(), value);
    }

private:
    static void put(const char* name, const std::optional<std::string>& value) {
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }

    std::map<std::string, std::optional<std::string>> saved_;
};

} // namespace tobrin::test
