#include "vault_storage.h"

#include <sqlite3.h>

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

constexpr const char* kSchema =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "CREATE TABLE IF NOT EXISTS slots (idx INTEGER PRIMARY KEY, data BLOB NOT NULL);"
    "CREATE TABLE IF NOT EXISTS keys (idx INTEGER PRIMARY KEY, type INTEGER NOT NULL,"
    "                                 material BLOB NOT NULL);"
    "CREATE TABLE IF NOT EXISTS hub_tokens (idx INTEGER PRIMARY KEY, token BLOB NOT NULL);"
    "CREATE TABLE IF NOT EXISTS secure_processor (item INTEGER PRIMARY KEY, value BLOB NOT NULL);";

}  // namespace

TEEC_Result resultFromSqlite(int code) {
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
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    int code = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
    if (code == SQLITE_OK) code = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
        error = "cannot open the vault store " + path + ": " +
                (db ? sqlite3_errmsg(db) : sqlite3_errstr(code));
        sqlite3_close(db);
        return nullptr;
    }
    return std::unique_ptr<VaultStorage>(new VaultStorage(db));
}

VaultStorage::~VaultStorage() {
    sqlite3_close(db_);
}

TEEC_Result VaultStorage::exec(const char* sql, std::initializer_list<Value> parameters,
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
    if (step != SQLITE_ROW && step != SQLITE_DONE) return resultFromSqlite(step);
    if (expect == Expect::kRow) {
        if (step != SQLITE_ROW) return TEEC_ERROR_ITEM_NOT_FOUND;
        for (int column = 0; column < sqlite3_column_count(statement.get()); ++column) {
            Value value;
            value.integer = sqlite3_column_int64(statement.get(), column);
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

TEEC_Result VaultStorage::readSlot(int32_t index, Bytes& data) {
    std::vector<Value> row;
    const TEEC_Result result =
        exec("SELECT data FROM slots WHERE idx = ?", {integer(index)}, Expect::kRow, &row);
    if (result == TEEC_SUCCESS) data = std::move(row[0].blob);
    return result;
}

TEEC_Result VaultStorage::writeSlot(int32_t index, const Bytes& data) {
    return exec("INSERT OR REPLACE INTO slots (idx, data) VALUES (?, ?)",
                {integer(index), blob(data)}, Expect::kNothing);
}

TEEC_Result VaultStorage::eraseSlot(int32_t index) {
    return exec("DELETE FROM slots WHERE idx = ?", {integer(index)}, Expect::kChange);
}

TEEC_Result VaultStorage::readKey(int32_t index, StoredKey& key) {
    std::vector<Value> row;
    const TEEC_Result result =
        exec("SELECT type, material FROM keys WHERE idx = ?", {integer(index)}, Expect::kRow, &row);
    if (result == TEEC_SUCCESS)
        key = {static_cast<int32_t>(row[0].integer), std::move(row[1].blob)};
    return result;
}

TEEC_Result VaultStorage::writeKey(int32_t index, const StoredKey& key) {
    return exec("INSERT OR REPLACE INTO keys (idx, type, material) VALUES (?, ?, ?)",
                {integer(index), integer(key.type), blob(key.material)}, Expect::kNothing);
}

TEEC_Result VaultStorage::eraseKey(int32_t index) {
    return exec("DELETE FROM keys WHERE idx = ?", {integer(index)}, Expect::kChange);
}

TEEC_Result VaultStorage::readHubToken(int32_t index, Bytes& token) {
    std::vector<Value> row;
    const TEEC_Result result =
        exec("SELECT token FROM hub_tokens WHERE idx = ?", {integer(index)}, Expect::kRow, &row);
    if (result == TEEC_SUCCESS) token = std::move(row[0].blob);
    return result;
}

TEEC_Result VaultStorage::writeHubToken(int32_t index, const Bytes& token) {
    return exec("INSERT OR REPLACE INTO hub_tokens (idx, token) VALUES (?, ?)",
                {integer(index), blob(token)}, Expect::kNothing);
}

TEEC_Result VaultStorage::readItem(int32_t item, Bytes& value) {
    std::vector<Value> row;
    const TEEC_Result result = exec("SELECT value FROM secure_processor WHERE item = ?",
                                    {integer(item)}, Expect::kRow, &row);
    if (result == TEEC_SUCCESS) value = std::move(row[0].blob);
    return result;
}

TEEC_Result VaultStorage::writeItem(int32_t item, const Bytes& value) {
    return exec("INSERT OR REPLACE INTO secure_processor (item, value) VALUES (?, ?)",
                {integer(item), blob(value)}, Expect::kNothing);
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
