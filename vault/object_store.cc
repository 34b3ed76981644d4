#include "object_store.h"

#include <openssl/evp.h>
#include <sqlite3.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace zel::tee {

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

struct DigestContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// A store is this daemon's when SQLite's application_id holds this stamp ("ZELV"); user_version
// is the layout below. Layout 1 held the former C++ TAs' own tables.
constexpr int32_t kStamp = 0x5A454C56;
constexpr int32_t kLayout = 2;

constexpr const char* kSchema =
    "BEGIN;"
    "CREATE TABLE objects (ta BLOB NOT NULL, id BLOB NOT NULL, data BLOB NOT NULL,"
    "                      sum BLOB NOT NULL, PRIMARY KEY (ta, id)) WITHOUT ROWID;"
    "PRAGMA application_id = 1514490966;"
    "PRAGMA user_version = 2;"
    "COMMIT;";
static_assert(kStamp == 1514490966 && kLayout == 2, "the schema text spells both out");

Bytes uuidBytes(const TEE_UUID& uuid) {
    Bytes bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(uint8_t(uuid.timeLow >> shift));
    bytes.push_back(uint8_t(uuid.timeMid >> 8));
    bytes.push_back(uint8_t(uuid.timeMid));
    bytes.push_back(uint8_t(uuid.timeHiAndVersion >> 8));
    bytes.push_back(uint8_t(uuid.timeHiAndVersion));
    bytes.insert(bytes.end(), uuid.clockSeqAndNode, uuid.clockSeqAndNode + 8);
    return bytes;
}

// SHA-256 of the row's fields, each after its length, so that no two rows hash alike by moving
// bytes from one field to the next. Empty on an OpenSSL failure.
Bytes rowSum(const Bytes& ta, const Bytes& id, const Bytes& data) {
    std::unique_ptr<EVP_MD_CTX, DigestContextFree> context(EVP_MD_CTX_new());
    static const char kTable[] = "objects";
    bool good = context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1 &&
                EVP_DigestUpdate(context.get(), kTable, sizeof kTable) == 1;
    for (const Bytes* field : {&ta, &id, &data}) {
        uint8_t length[8];
        for (int byte = 0; byte < 8; ++byte)
            length[byte] = uint8_t(uint64_t(field->size()) >> (8 * byte));
        good = good && EVP_DigestUpdate(context.get(), length, sizeof length) == 1 &&
               EVP_DigestUpdate(context.get(), field->data(), field->size()) == 1;
    }
    Bytes digest(32);
    unsigned int size = 0;
    if (!good || EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1 || size != 32)
        return {};
    return digest;
}

// The store holds private keys: it must be this user's own regular file, closed to everyone
// else, and so must the WAL files beside it. A missing store is created 0600; created tells.
bool privateStoreFile(const std::string& path, bool& created, std::string& error) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    created = fd >= 0;
    if (fd < 0 && errno == EEXIST) fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
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

// SQLite's account of its last failure, with the system's when there is one. Taken at once:
// a later statement (a ROLLBACK) replaces it, with "not an error" when that one succeeds.
std::string sqliteFailure(sqlite3* db) {
    std::string text = sqlite3_errmsg(db);
    if (const int system = sqlite3_system_errno(db))
        text += std::string(" (") + std::strerror(system) + ")";
    return text;
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

// Opens the store, creating the tables in an empty database and refusing any other: a database
// without the stamp is another program's, and is not touched.
bool openStamped(sqlite3* db, const std::string& path, std::string& error) {
    const std::string cannot = "cannot open the vault store " + path + ": ";
    int code = SQLITE_OK;
    const int32_t stamp = pragmaValue(db, "PRAGMA application_id", code);
    const int32_t layout = code == SQLITE_OK ? pragmaValue(db, "PRAGMA user_version", code) : 0;
    const int32_t objects =
        code == SQLITE_OK ? pragmaValue(db, "SELECT count(*) FROM sqlite_master", code) : 0;
    if (code != SQLITE_OK) {
        error = cannot + sqliteFailure(db);
        return false;
    }
    if (stamp == 0 && objects == 0) {
        if (sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
            error = cannot + sqliteFailure(db);
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
            return false;
        }
    } else if (stamp != kStamp) {
        error = path + " is not a vault store (no zel-vaultd stamp in its application_id); " +
                "refusing to use or change it";
        return false;
    } else if (layout != kLayout) {
        error = path + " is a vault store of another layout (" + std::to_string(layout) +
                ", this daemon reads " + std::to_string(kLayout) + "); refusing it";
        return false;
    }
    if (sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", nullptr, nullptr,
                     nullptr) != SQLITE_OK) {
        error = cannot + sqliteFailure(db);
        return false;
    }
    if (sqlite3_db_readonly(db, "main") == 1) {
        error = "the vault store " + path + " cannot be written (read-only)";
        return false;
    }
    return true;
}

// Binds a blob; an empty one as a zero-length blob, since a null pointer would bind SQL NULL.
int bindBlob(sqlite3_stmt* statement, int position, const Bytes& value) {
    if (value.empty()) return sqlite3_bind_zeroblob(statement, position, 0);
    return sqlite3_bind_blob64(statement, position, value.data(), value.size(), SQLITE_TRANSIENT);
}

}  // namespace

TEE_Result resultFromSqlite(int code, int systemError) {
    const int primary = code & 0xFF;
    if (primary == SQLITE_IOERR || primary == SQLITE_FULL) {
        if (systemError == ENOSPC || systemError == EDQUOT || systemError == EFBIG)
            return TEE_ERROR_STORAGE_NO_SPACE;
    }
    // The only constraint a write can break is the key: the object exists.
    if (code == SQLITE_CONSTRAINT_PRIMARYKEY) return TEE_ERROR_ACCESS_CONFLICT;
    switch (primary) {
        case SQLITE_OK:
        case SQLITE_DONE:
        case SQLITE_ROW:
            return TEE_SUCCESS;
        case SQLITE_NOMEM:
            return TEE_ERROR_OUT_OF_MEMORY;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return TEE_ERROR_BUSY;
        case SQLITE_FULL:
            return TEE_ERROR_STORAGE_NO_SPACE;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return TEE_ERROR_CORRUPT_OBJECT;
        default:
            return TEE_ERROR_GENERIC;
    }
}

std::unique_ptr<ObjectStore> ObjectStore::open(const std::string& path, std::string& error) {
    bool created = false;
    if (path != ":memory:" && !privateStoreFile(path, created, error)) return nullptr;
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
    if (code != SQLITE_OK) {
        error = "cannot open the vault store " + path + ": " +
                (db ? sqliteFailure(db) : std::string(sqlite3_errstr(code)));
    } else {
        sqlite3_extended_result_codes(db, 1);
        if (openStamped(db, path, error)) return std::unique_ptr<ObjectStore>(new ObjectStore(db));
    }
    sqlite3_close(db);
    // Half a new store would read as another program's database at the next start.
    if (created)
        for (const char* suffix : {"", "-journal", "-wal", "-shm"}) unlink((path + suffix).c_str());
    return nullptr;
}

ObjectStore::~ObjectStore() {
    sqlite3_close(db_);
}

TEE_Result ObjectStore::read(const TEE_UUID& ta, const Bytes& id, Bytes& data) {
    const Bytes owner = uuidBytes(ta);
    Bytes value, sum;
    {
        std::lock_guard<std::mutex> oneStatementAtATime(lock_);
        Statement statement(db_, "SELECT data, sum FROM objects WHERE ta = ? AND id = ?");
        if (statement.code() != SQLITE_OK) return resultFromSqlite(statement.code());
        int code = bindBlob(statement.get(), 1, owner);
        if (code == SQLITE_OK) code = bindBlob(statement.get(), 2, id);
        if (code != SQLITE_OK) return resultFromSqlite(code);
        code = sqlite3_step(statement.get());
        if (code == SQLITE_DONE) return TEE_ERROR_ITEM_NOT_FOUND;
        if (code != SQLITE_ROW) return resultFromSqlite(code, sqlite3_system_errno(db_));
        for (int column = 0; column < 2; ++column) {
            const auto* bytes =
                static_cast<const uint8_t*>(sqlite3_column_blob(statement.get(), column));
            const int size = sqlite3_column_bytes(statement.get(), column);
            (column == 0 ? value : sum).assign(bytes, bytes + (bytes ? size : 0));
        }
    }
    // What comes back from the file is checked like any input: a damaged row is no answer.
    const Bytes expected = rowSum(owner, id, value);
    if (expected.empty()) return TEE_ERROR_OUT_OF_MEMORY;
    if (expected != sum) return TEE_ERROR_CORRUPT_OBJECT;
    data = std::move(value);
    return TEE_SUCCESS;
}

TEE_Result ObjectStore::write(const TEE_UUID& ta, const Bytes& id, const Bytes& data,
                              bool overwrite) {
    const Bytes owner = uuidBytes(ta);
    const Bytes sum = rowSum(owner, id, data);
    if (sum.empty()) return TEE_ERROR_OUT_OF_MEMORY;
    std::lock_guard<std::mutex> oneStatementAtATime(lock_);
    Statement statement(db_, overwrite
                                 ? "INSERT OR REPLACE INTO objects (ta, id, data, sum) "
                                   "VALUES (?, ?, ?, ?)"
                                 : "INSERT INTO objects (ta, id, data, sum) VALUES (?, ?, ?, ?)");
    if (statement.code() != SQLITE_OK) return resultFromSqlite(statement.code());
    int code = SQLITE_OK;
    int position = 1;
    for (const Bytes* value : {&owner, &id, &data, &sum})
        if (code == SQLITE_OK) code = bindBlob(statement.get(), position++, *value);
    if (code != SQLITE_OK) return resultFromSqlite(code);
    code = sqlite3_step(statement.get());
    return code == SQLITE_DONE ? TEE_SUCCESS : resultFromSqlite(code, sqlite3_system_errno(db_));
}

TEE_Result ObjectStore::erase(const TEE_UUID& ta, const Bytes& id) {
    const Bytes owner = uuidBytes(ta);
    std::lock_guard<std::mutex> oneStatementAtATime(lock_);
    Statement statement(db_, "DELETE FROM objects WHERE ta = ? AND id = ?");
    if (statement.code() != SQLITE_OK) return resultFromSqlite(statement.code());
    int code = bindBlob(statement.get(), 1, owner);
    if (code == SQLITE_OK) code = bindBlob(statement.get(), 2, id);
    if (code != SQLITE_OK) return resultFromSqlite(code);
    code = sqlite3_step(statement.get());
    if (code != SQLITE_DONE) return resultFromSqlite(code, sqlite3_system_errno(db_));
    return sqlite3_changes(db_) == 0 ? TEE_ERROR_ITEM_NOT_FOUND : TEE_SUCCESS;
}

TEE_Result ObjectStore::clear() {
    std::lock_guard<std::mutex> oneStatementAtATime(lock_);
    const int code = sqlite3_exec(db_, "DELETE FROM objects", nullptr, nullptr, nullptr);
    return resultFromSqlite(code, code == SQLITE_OK ? 0 : sqlite3_system_errno(db_));
}

}  // namespace zel::tee
