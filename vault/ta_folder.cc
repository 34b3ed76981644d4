#include "ta_folder.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace zel::vault {

bool TaFolder::check(std::string& error) const {
    DIR* folder = opendir(path_.c_str());
    if (!folder) {
        error = "cannot read the TA folder " + path_ + ": " + std::strerror(errno);
        return false;
    }
    closedir(folder);
    return true;
}

bool TaFolder::load(const wire::UuidBytes& uuid, TrustedApp& app) {
    std::string error;
    auto ta = LoadedTa::load(path_, uuid, store_, error);
    if (!ta) {
        // A UUID with no file is an ordinary miss; a file that is no TA is worth saying.
        if (access((path_ + "/" + wire::uuidText(uuid) + ".so").c_str(), F_OK) == 0)
            std::cerr << "zel-vaultd: " << error << std::endl;
        return false;
    }
    LoadedTa* loaded = ta.get();
    app.open = [loaded](TaOperation& operation, TaSession& session) {
        return loaded->openSession(operation, session);
    };
    app.invoke = [loaded](TaSession& session, uint32_t command, TaOperation& operation) {
        return loaded->invoke(session, command, operation);
    };
    app.close = [loaded](TaSession& session) { loaded->closeSession(session); };
    std::lock_guard<std::mutex> lock(lock_);
    loaded_[uuid] = std::move(ta);
    return true;
}

std::string TaFolder::besideProgram() {
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string program = length > 0 ? std::string(self, static_cast<size_t>(length)) : "";
    const auto slash = program.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : program.substr(0, slash);
    return folder + "/" + ZEL_TA_FOLDER_FROM_PROGRAM;
}

}  // namespace zel::vault
