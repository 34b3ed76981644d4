// The host TEE's secure storage: every TA's persistent objects, by the TA's UUID and the object's
// id, in SQLite. Every change is one statement in its own transaction, committed
// (synchronous=FULL) before the call returns, so an operation that reported success survives a
// kill -9 of the daemon when the store is a file. Thread-safe: the TAs that share it run one
// statement at a time.
//
// A file store is stamped as this daemon's (SQLite application_id) and must be the user's own,
// mode 0600 (a new one is created so); any other file is refused at open and left untouched.
// Every row carries a SHA-256 of its TA, id and data, checked on every read: a damaged row reads
// as TEE_ERROR_CORRUPT_OBJECT. Callers still check what they read against their own rules.
#pragma once

#include <tee_api_types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace zel::tee {

using Bytes = std::vector<uint8_t>;

class ObjectStore {
  public:
    // ":memory:" or a file path. Null with a message when the store cannot be opened or is not a
    // vault store of this layout. A file this call created is removed again when it could not
    // be made a store (a full disk), so that the next start begins afresh.
    static std::unique_ptr<ObjectStore> open(const std::string& path, std::string& error);
    ~ObjectStore();
    ObjectStore(const ObjectStore&) = delete;
    ObjectStore& operator=(const ObjectStore&) = delete;

    // TEE_ERROR_ITEM_NOT_FOUND when the TA has no object of that id; data is left as it was on
    // any failure.
    TEE_Result read(const TEE_UUID& ta, const Bytes& id, Bytes& data);
    // Without overwrite, an existing object is TEE_ERROR_ACCESS_CONFLICT and stays as it was.
    TEE_Result write(const TEE_UUID& ta, const Bytes& id, const Bytes& data, bool overwrite);
    // TEE_ERROR_ITEM_NOT_FOUND when there was nothing to erase.
    TEE_Result erase(const TEE_UUID& ta, const Bytes& id);
    // Every object of every TA.
    TEE_Result clear();

  private:
    explicit ObjectStore(sqlite3* db) : db_(db) {}

    sqlite3* db_;
    std::mutex lock_;
};

// The one place where an SQLite result (with the errno behind an I/O error) becomes a GP result.
TEE_Result resultFromSqlite(int code, int systemError = 0);

}  // namespace zel::tee
