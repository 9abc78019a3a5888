#include "open_storage.h"

#include "pg_storage.h"
#include "sqlite_storage.h"

std::unique_ptr<Storage> open_storage(const std::string& db) {
    if (db.starts_with("postgresql://") || db.starts_with("postgres://")) return std::make_unique<PgStorage>(db);
    return std::make_unique<SqliteStorage>(db);
}
