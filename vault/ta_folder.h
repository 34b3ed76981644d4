// The daemon's TA folder: GlobalPlatform TAs as shared objects named <uuid>.so, loaded the first
// time a client opens a session to their UUID, and kept (each with its instance) until the daemon
// ends.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "loaded_ta.h"

namespace zel::vault {

class TaFolder {
  public:
    // store must outlive the folder.
    TaFolder(std::string path, tee::ObjectStore& store) : path_(std::move(path)), store_(store) {}

    // False with a message when the folder cannot be read.
    bool check(std::string& error) const;
    // The registry's loader: wires app to the TA of that UUID; false (the reason on stderr) when
    // the folder has none the daemon can host.
    bool load(const wire::UuidBytes& uuid, TrustedApp& app);
    // The folder a daemon at this path uses by default: the TAs installed beside it.
    static std::string besideProgram();

  private:
    std::string path_;
    tee::ObjectStore& store_;
    std::mutex lock_;
    std::map<wire::UuidBytes, std::unique_ptr<LoadedTa>> loaded_;
};

}  // namespace zel::vault
