// The vault's secure storage: data slots and keys by index, in SQLite. Every change is one
// statement in its own transaction, committed (synchronous=FULL) before the command answers, so a
// command that returned success survives a kill -9 of the daemon when the store is a file. The
// default store is in memory. Thread-safe: the TAs that share it run one statement at a time.
//
// A file store is stamped as this daemon's (SQLite application_id) and must be the user's own,
// mode 0600 (a new one is created so); any other file is refused at open and left untouched.
// Every row carries a SHA-256 of its table, index and values, checked on every read: a damaged
// row reads as TEEC_ERROR_BAD_STATE. Callers still check what they read against their own rules.
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace zel::vault {

using Bytes = std::vector<uint8_t>;

struct StoredKey {
    int32_t type = 0;
    Bytes material;
};

class VaultStorage {
  public:
    // ":memory:" or a file path. Null with a message when the store cannot be opened or is not a
    // vault store.
    static std::unique_ptr<VaultStorage> open(const std::string& path, std::string& error);
    ~VaultStorage();
    VaultStorage(const VaultStorage&) = delete;
    VaultStorage& operator=(const VaultStorage&) = delete;

    // Reads and erasures answer TEEC_ERROR_ITEM_NOT_FOUND when there is nothing at the index.
    TEEC_Result readSlot(int32_t index, Bytes& data);
    TEEC_Result writeSlot(int32_t index, const Bytes& data);
    TEEC_Result eraseSlot(int32_t index);
    TEEC_Result readKey(int32_t index, StoredKey& key);
    TEEC_Result writeKey(int32_t index, const StoredKey& key);
    TEEC_Result eraseKey(int32_t index);
    // Decrypted hub tokens, by the index they were stored under.
    TEEC_Result readHubToken(int32_t index, Bytes& token);
    TEEC_Result writeHubToken(int32_t index, const Bytes& token);
    // The secure processor's state, one value (possibly empty) per item.
    TEEC_Result readItem(int32_t item, Bytes& value);
    TEEC_Result writeItem(int32_t item, const Bytes& value);
    TEEC_Result eraseItem(int32_t item);
    TEEC_Result clear();

  private:
    // A statement parameter or result column: an integer or a blob.
    struct Value {
        int64_t integer = 0;
        Bytes blob;
        bool isBlob = false;
    };
    static Value integer(int64_t value) { return {value, {}, false}; }
    static Value blob(const Bytes& value) { return {0, value, true}; }
    enum class Expect { kNothing, kRow, kChange };

    explicit VaultStorage(sqlite3* db) : db_(db) {}
    TEEC_Result exec(const char* sql, const std::vector<Value>& parameters, Expect expect,
                     std::vector<Value>* row = nullptr);
    // values: the index, then the row's columns; the checksum goes last.
    static Bytes rowSum(const char* table, const std::vector<Value>& values);
    TEEC_Result writeRow(const char* sql, const char* table, std::vector<Value> values);
    // The row's columns without its checksum, once the checksum is found right.
    TEEC_Result readRow(const char* sql, const char* table, int64_t index, std::vector<Value>& row);

    sqlite3* db_;
    std::mutex lock_;
};

// The one place where an SQLite result (with the errno behind an I/O error) becomes a GP result.
TEEC_Result resultFromSqlite(int code, int systemError = 0);

}  // namespace zel::vault
