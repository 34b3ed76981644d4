#include "stand_in_store.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace zel::stand_in {

namespace {

struct State {
    std::mutex mutex;
    std::map<std::pair<Service, std::string>, std::string> values;
    std::set<const void*> outstanding;
    Ledger counts{};
};

// Never destroyed: a free() interposer may still call in while static objects are torn down.
State& state() {
    static State* const instance = new State;
    return *instance;
}

std::optional<std::string> findInFile(const char* path, const std::string& key) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals != std::string::npos && line.compare(0, equals, key) == 0 &&
            equals == key.size())
            return line.substr(equals + 1);
    }
    return std::nullopt;
}

}  // namespace

const char* fileVariable(Service service) {
    return service == Service::kConfig ? "ZEL_VCONF_FILE" : "ZEL_SYSTEM_INFO_FILE";
}

void setValue(Service service, const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().values[{service, key}] = value;
}

void removeValue(Service service, const std::string& key) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().values.erase({service, key});
}

void clearValues(Service service) {
    std::lock_guard<std::mutex> lock(state().mutex);
    auto& values = state().values;
    for (auto it = values.begin(); it != values.end();)
        it = it->first.first == service ? values.erase(it) : std::next(it);
}

std::optional<std::string> findValue(Service service, const std::string& key) {
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        const auto found = state().values.find({service, key});
        if (found != state().values.end()) return found->second;
    }
    const char* path = std::getenv(fileVariable(service));
    if (path == nullptr || *path == '\0') return std::nullopt;
    return findInFile(path, key);
}

char* handOut(const std::string& value) {
    char* copy = static_cast<char*>(std::malloc(value.size() + 1));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, value.c_str(), value.size() + 1);
    std::lock_guard<std::mutex> lock(state().mutex);
    state().outstanding.insert(copy);
    ++state().counts.handedOut;
    return copy;
}

bool noteFree(const void* pointer) {
    if (pointer == nullptr) return false;
    std::lock_guard<std::mutex> lock(state().mutex);
    if (state().outstanding.erase(pointer) == 0) return false;
    ++state().counts.freed;
    return true;
}

Ledger ledger() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().counts;
}

void resetLedger() {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().outstanding.clear();
    state().counts = {};
}

}  // namespace zel::stand_in
