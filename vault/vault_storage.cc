#include "vault_storage.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vault_crypto.h"

namespace zel::vault {

namespace {

// Owns one prepared statement; finalizing twice is harmless.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) {
        code_ = sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr);
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    int code() const { return code_; }
    sqlite3_stmt* get() const { return statement_; }

  private:
    sqlite3_stmt* statement_ = nullptr;
    int code_;
};

// A store is this daemon's when SQLite's application_id holds this stamp ("ZELV"); user_version
// is the layout below. Every row carries the SHA-256 of its table, index and values.
constexpr int32_t kStamp = 0x5A454C56;
constexpr int32_t kLayout = 1;

constexpr const char* kSchema =
    "BEGIN;"
    "CREATE TABLE slots (idx INTEGER PRIMARY KEY, data BLOB NOT NULL, sum BLOB NOT NULL);"
    "CREATE TABLE keys (idx INTEGER PRIMARY KEY, type INTEGER NOT NULL, material BLOB NOT NULL,"
    "                   sum BLOB NOT NULL);"
    "CREATE TABLE hub_tokens (idx INTEGER PRIMARY KEY, token BLOB NOT NULL, sum BLOB NOT NULL);"
    "CREATE TABLE secure_processor (item INTEGER PRIMARY KEY, value BLOB NOT NULL,"
    "                               sum BLOB NOT NULL);"
    "PRAGMA application_id = 1514490966;"
    "PRAGMA user_version = 1;"
    "COMMIT;";
static_assert(kStamp == 1514490966 && kLayout == 1, "the schema text spells both out");

// The store holds private keys: it must be this user's own regular file, closed to everyone
// else, and so must the WAL files beside it. A missing store is created 0600.
bool privateStoreFile(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot open the vault store " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat info {};
    const bool known = fstat(fd, &info) == 0;
    close(fd);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string file = path + suffix;
        if (*suffix && lstat(file.c_str(), &info) != 0) continue;  // not there: fine
        if (!known || !S_ISREG(info.st_mode)) {
            error = "the vault store " + file + " is not a regular file; refusing it";
            return false;
        }
        if (info.st_uid != geteuid()) {
            error = "the vault store " + file + " belongs to another user (uid " +
                    std::to_string(info.st_uid) + "); refusing it";
            return false;
        }
        if ((info.st_mode & 077) != 0) {
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
            error = "the vault store " + file + " is open to other users (mode " + mode +
                    "); it must be 0600";
            return false;
        }
    }
    return true;
}

int32_t pragmaValue(sqlite3* db, const char* sql, int& code) {
    Statement statement(db, sql);
    code = statement.code();
    if (code != SQLITE_OK) return 0;
    code = sqlite3_step(statement.get());
    if (code != SQLITE_ROW) return 0;
    code = SQLITE_OK;
    return sqlite3_column_int(statement.get(), 0);
}

// Opens the store, creating the vault's tables in an empty database and refusing any other: a
// database without the stamp is another program's, and is not touched.
bool openStamped(sqlite3* db, const std::string& path, std::string& error) {
    int code = SQLITE_OK;
    const int32_t stamp = pragmaValue(db, "PRAGMA application_id", code);
    const int32_t layout = code == SQLITE_OK ? pragmaValue(db, "PRAGMA user_version", code) : 0;
    const int32_t objects =
        code == SQLITE_OK ? pragmaValue(db, "SELECT count(*) FROM sqlite_master", code) : 0;
    if (code == SQLITE_OK && stamp == 0 && objects == 0) {
        code = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
        if (code != SQLITE_OK) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    } else if (code == SQLITE_OK && stamp != kStamp) {
        error = path + " is not a vault store (no zel-vaultd stamp in its application_id); " +
                "refusing to use or change it";
        return false;
    } else if (code == SQLITE_OK && layout != kLayout) {
        error = path + " is a vault store of another layout (" + std::to_string(layout) +
                ", this daemon reads " + std::to_string(kLayout) + "); refusing it";
        return false;
    }
    if (code == SQLITE_OK)
        code = sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", nullptr,
                            nullptr, nullptr);
    if (code == SQLITE_OK && sqlite3_db_readonly(db, "main") == 1) {
        error = "the vault store " + path + " cannot be written (read-only)";
        return false;
    }
    if (code != SQLITE_OK) {
        error = "cannot open the vault store " + path + ": " + sqlite3_errmsg(db);
        return false;
    }
    return true;
}

}  // namespace

TEEC_Result resultFromSqlite(int code, int systemError) {
    // An I/O error says what the filesystem said: full, or read-only.
    if ((code & 0xFF) == SQLITE_IOERR || (code & 0xFF) == SQLITE_FULL) {
        if (systemError == ENOSPC || systemError == EDQUOT) return 0xFFFF3041;
        if (systemError == EROFS || systemError == EACCES) return TEEC_ERROR_ACCESS_DENIED;
    }
    switch (code & 0xFF) {
        case SQLITE_OK:
        case SQLITE_DONE:
        case SQLITE_ROW:
            return TEEC_SUCCESS;
        case SQLITE_NOMEM:
            return TEEC_ERROR_OUT_OF_MEMORY;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return TEEC_ERROR_BUSY;
        case SQLITE_FULL:
            return 0xFFFF3041;  // TEE_ERROR_STORAGE_NO_SPACE
        case SQLITE_PERM:
        case SQLITE_READONLY:
        case SQLITE_AUTH:
            return TEEC_ERROR_ACCESS_DENIED;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return TEEC_ERROR_BAD_STATE;
        default:
            return TEEC_ERROR_GENERIC;
    }
}

std::unique_ptr<VaultStorage> VaultStorage::open(const std::string& path, std::string& error) {
    if (path != ":memory:" && !privateStoreFile(path, error)) return nullptr;
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
    if (code != SQLITE_OK) {
        error = "cannot open the vault store " + path + ": " +
                (db ? sqlite3_errmsg(db) : sqlite3_errstr(code));
        sqlite3_close(db);
        return nullptr;
    }
    if (!openStamped(db, path, error)) {
        sqlite3_close(db);
        return nullptr;
    }
    return std::unique_ptr<VaultStorage>(new VaultStorage(db));
}

VaultStorage::~VaultStorage() {
    sqlite3_close(db_);
}

TEEC_Result VaultStorage::exec(const char* sql, const std::vector<Value>& parameters,
                               Expect expect, std::vector<Value>* row) {
    std::lock_guard<std::mutex> oneStatementAtATime(lock_);
    Statement statement(db_, sql);
    if (statement.code() != SQLITE_OK) return resultFromSqlite(statement.code());
    int position = 1;
    for (const Value& parameter : parameters) {
        // An empty blob is bound as a zero-length blob: a null pointer would bind SQL NULL.
        const int code =
            !parameter.isBlob ? sqlite3_bind_int64(statement.get(), position, parameter.integer)
            : parameter.blob.empty()
                ? sqlite3_bind_zeroblob(statement.get(), position, 0)
                : sqlite3_bind_blob(statement.get(), position, parameter.blob.data(),
                                    static_cast<int>(parameter.blob.size()), SQLITE_TRANSIENT);
        if (code != SQLITE_OK) return resultFromSqlite(code);
        ++position;
    }
    const int step = sqlite3_step(statement.get());
    if (step != SQLITE_ROW && step != SQLITE_DONE)
        return resultFromSqlite(step, sqlite3_system_errno(db_));
    if (expect == Expect::kRow) {
        if (step != SQLITE_ROW) return TEEC_ERROR_ITEM_NOT_FOUND;
        for (int column = 0; column < sqlite3_column_count(statement.get()); ++column) {
            Value value;
            value.integer = sqlite3_column_int64(statement.get(), column);
            value.isBlob = sqlite3_column_type(statement.get(), column) == SQLITE_BLOB;
            const auto* bytes =
                static_cast<const uint8_t*>(sqlite3_column_blob(statement.get(), column));
            if (bytes)
                value.blob.assign(bytes, bytes + sqlite3_column_bytes(statement.get(), column));
            row->push_back(std::move(value));
        }
    }
    if (expect == Expect::kChange && sqlite3_changes(db_) == 0) return TEEC_ERROR_ITEM_NOT_FOUND;
    return TEEC_SUCCESS;
}

Bytes VaultStorage::rowSum(const char* table, const std::vector<Value>& values) {
    Bytes text(table, table + std::strlen(table) + 1);
    for (const Value& value : values) {
        const uint64_t number = value.isBlob ? value.blob.size() : static_cast<uint64_t>(value.integer);
        text.push_back(value.isBlob ? 'B' : 'I');
        for (int shift = 0; shift < 64; shift += 8) text.push_back(static_cast<uint8_t>(number >> shift));
        if (value.isBlob) text.insert(text.end(), value.blob.begin(), value.blob.end());
    }
    Bytes digest;
    return sha256(text, digest) == TEEC_SUCCESS ? digest : Bytes();
}

TEEC_Result VaultStorage::writeRow(const char* sql, const char* table, std::vector<Value> values) {
    const Bytes sum = rowSum(table, values);
    if (sum.empty()) return TEEC_ERROR_OUT_OF_MEMORY;
    values.push_back(blob(sum));
    return exec(sql, values, Expect::kNothing);
}

TEEC_Result VaultStorage::readRow(const char* sql, const char* table, int64_t index,
                                  std::vector<Value>& row) {
    const TEEC_Result result = exec(sql, {integer(index)}, Expect::kRow, &row);
    if (result != TEEC_SUCCESS) return result;
    // What comes back from the file is checked like any input: a damaged row is no answer.
    const Bytes stored = std::move(row.back().blob);
    row.back() = integer(index);
    std::rotate(row.rbegin(), row.rbegin() + 1, row.rend());  // the index first, as written
    if (rowSum(table, row) != stored) return TEEC_ERROR_BAD_STATE;
    row.erase(row.begin());
    return TEEC_SUCCESS;
}

TEEC_Result VaultStorage::readSlot(int32_t index, Bytes& data) {
    std::vector<Value> row;
    const TEEC_Result result =
        readRow("SELECT data, sum FROM slots WHERE idx = ?", "slots", index, row);
    if (result == TEEC_SUCCESS) data = std::move(row[0].blob);
    return result;
}

TEEC_Result VaultStorage::writeSlot(int32_t index, const Bytes& data) {
    return writeRow("INSERT OR REPLACE INTO slots (idx, data, sum) VALUES (?, ?, ?)", "slots",
                    {integer(index), blob(data)});
}

TEEC_Result VaultStorage::eraseSlot(int32_t index) {
    return exec("DELETE FROM slots WHERE idx = ?", {integer(index)}, Expect::kChange);
}

TEEC_Result VaultStorage::readKey(int32_t index, StoredKey& key) {
    std::vector<Value> row;
    const TEEC_Result result =
        readRow("SELECT type, material, sum FROM keys WHERE idx = ?", "keys", index, row);
    if (result == TEEC_SUCCESS)
        key = {static_cast<int32_t>(row[0].integer), std::move(row[1].blob)};
    return result;
}

TEEC_Result VaultStorage::writeKey(int32_t index, const StoredKey& key) {
    return writeRow("INSERT OR REPLACE INTO keys (idx, type, material, sum) VALUES (?, ?, ?, ?)",
                    "keys", {integer(index), integer(key.type), blob(key.material)});
}

TEEC_Result VaultStorage::eraseKey(int32_t index) {
    return exec("DELETE FROM keys WHERE idx = ?", {integer(index)}, Expect::kChange);
}

TEEC_Result VaultStorage::readHubToken(int32_t index, Bytes& token) {
    std::vector<Value> row;
    const TEEC_Result result =
        readRow("SELECT token, sum FROM hub_tokens WHERE idx = ?", "hub_tokens", index, row);
    if (result == TEEC_SUCCESS) token = std::move(row[0].blob);
    return result;
}

TEEC_Result VaultStorage::writeHubToken(int32_t index, const Bytes& token) {
    return writeRow("INSERT OR REPLACE INTO hub_tokens (idx, token, sum) VALUES (?, ?, ?)",
                    "hub_tokens", {integer(index), blob(token)});
}

TEEC_Result VaultStorage::readItem(int32_t item, Bytes& value) {
    std::vector<Value> row;
    const TEEC_Result result = readRow("SELECT value, sum FROM secure_processor WHERE item = ?",
                                       "secure_processor", item, row);
    if (result == TEEC_SUCCESS) value = std::move(row[0].blob);
    return result;
}

TEEC_Result VaultStorage::writeItem(int32_t item, const Bytes& value) {
    return writeRow("INSERT OR REPLACE INTO secure_processor (item, value, sum) VALUES (?, ?, ?)",
                    "secure_processor", {integer(item), blob(value)});
}

TEEC_Result VaultStorage::eraseItem(int32_t item) {
    return exec("DELETE FROM secure_processor WHERE item = ?", {integer(item)}, Expect::kNothing);
}

TEEC_Result VaultStorage::clear() {
    std::lock_guard<std::mutex> oneStatementAtATime(lock_);
    const int code = sqlite3_exec(db_,
                                  "BEGIN; DELETE FROM slots; DELETE FROM keys; DELETE FROM "
                                  "hub_tokens; DELETE FROM secure_processor; COMMIT;",
                                  nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    return resultFromSqlite(code);
}

}  // namespace zel::vault
