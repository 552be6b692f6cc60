#include "PelorinHost/Agents/CodexDatabase.h"

#include "PelorinCore/Label.h"

#include <array>
#include <charconv>
#include <fmt/format.h>
#include <fstream>
#include <memory>
#include <set>
#include <sqlite3.h>

namespace pelorin {
namespace {

constexpr std::string_view namePrefix = "state_";
constexpr std::string_view nameSuffix = ".sqlite";
constexpr std::size_t mostEntries = 4096; // of the folder
constexpr int journalKindAt = 18; // in the file's header
constexpr char writeAheadLog = 2;
constexpr int stepsBetweenLooks = 10'000;
constexpr int mostLooks = 200; // some tens of milliseconds
constexpr int longestValue = 1 << 20; // bytes

using Connection = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

std::optional<int> versionIn(const std::string& name)
{
    std::string_view text = name;
    if (!text.starts_with(namePrefix) || !text.ends_with(nameSuffix)) return std::nullopt;
    text = text.substr(namePrefix.size(), text.size() - namePrefix.size() - nameSuffix.size());
    int version = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), version);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return version;
}

bool usesWriteAheadLog(const std::filesystem::path& database)
{
    std::ifstream file(database, std::ios::binary);
    return file.seekg(journalKindAt) && file.get() == writeAheadLog;
}

std::string uriOf(const std::filesystem::path& database)
{
    std::string uri = "file:";
    for (const char c : database.string())
        uri += c == '%' || c == '?' || c == '#' ? fmt::format("%{:02x}", c) : std::string(1, c);
    // Opening a database with a write-ahead log makes the log's files where there are none: then nobody
    // writes, and it is read as it lies there. Where there are some, their writer's shared memory is only
    // looked at.
    if (!usesWriteAheadLog(database)) return uri + "?mode=ro";
    std::error_code ignored;
    const bool isInUse = std::filesystem::exists(database.string() + "-wal", ignored);
    return uri + (isInUse ? "?mode=ro&readonly_shm=1" : "?immutable=1");
}

std::string messageOf(sqlite3* connection)
{
    return connection ? sqlite3_errmsg(connection) : "no memory";
}

Connection open(const std::filesystem::path& database)
{
    sqlite3* opened = nullptr;
    sqlite3_open_v2(uriOf(database).c_str(), &opened,
        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE, nullptr);
    if (opened && sqlite3_errcode(opened) == SQLITE_OK) {
        sqlite3_limit(opened, SQLITE_LIMIT_LENGTH, longestValue);
        sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
        sqlite3_db_config(opened, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    }
    return {opened, &sqlite3_close};
}

Statement prepare(sqlite3* connection, const std::string& query)
{
    sqlite3_stmt* prepared = nullptr;
    sqlite3_prepare_v2(connection, query.c_str(), -1, &prepared, nullptr);
    return {prepared, &sqlite3_finalize};
}

std::string textAt(sqlite3_stmt* row, int column)
{
    const auto* text = sqlite3_column_text(row, column);
    if (!text) return {};
    return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(sqlite3_column_bytes(row, column))};
}

std::set<std::string> columnsOf(sqlite3* connection)
{
    std::set<std::string> columns;
    const Statement statement = prepare(connection, "PRAGMA table_info(threads)");
    while (statement && sqlite3_step(statement.get()) == SQLITE_ROW)
        columns.insert(textAt(statement.get(), 1));
    return columns;
}

// A column that this version does not have is null.
std::string queryFor(const std::set<std::string>& columns)
{
    const auto orNull = [&](const char* name) { return columns.contains(name) ? name : "NULL"; };
    // The finer one came later, and is null in rows of before.
    const std::string updated
        = fmt::format("coalesce({}, {} * 1000, 0)", orNull("updated_at_ms"), orNull("updated_at"));
    return fmt::format("SELECT id, substr({}, 1, 400), substr({}, 1, 4096), substr({}, 1, 4096), {}, {} "
                       "FROM threads ORDER BY {} DESC LIMIT {}",
        orNull("title"), orNull("cwd"), orNull("rollout_path"), updated, orNull("archived"), updated,
        CodexDatabase::mostThreads);
}

CodexDatabase::Thread threadAt(sqlite3_stmt* row)
{
    CodexDatabase::Thread thread{asLabel(textAt(row, 0)), asLabel(textAt(row, 1)), textAt(row, 2),
        textAt(row, 3), {}, sqlite3_column_int(row, 5) != 0};
    const auto millis = sqlite3_column_int64(row, 4);
    constexpr std::int64_t mostMillis = 100'000'000'000'000; // some 3000 years
    if (millis > 0 && millis < mostMillis) thread.updatedAt = DeckDate(std::chrono::milliseconds(millis));
    return thread;
}

} // namespace

std::optional<std::filesystem::path> CodexDatabase::find(const std::filesystem::path& folder)
{
    std::optional<std::filesystem::path> newest;
    int newestVersion = -1;
    std::size_t seen = 0;
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator(folder, error);
        !error && entry != std::filesystem::directory_iterator() && ++seen < mostEntries;
        entry.increment(error)) {
        const auto version = versionIn(entry->path().filename());
        std::error_code ignored;
        const bool isFile = std::filesystem::is_regular_file(entry->symlink_status(ignored));
        if (!version || *version <= newestVersion || !isFile) continue;
        newestVersion = *version;
        newest = entry->path();
    }
    return newest;
}

Result<std::vector<CodexDatabase::Thread>, std::string> CodexDatabase::threads(
    const std::filesystem::path& database)
{
    const Connection connection = open(database);
    if (!connection || sqlite3_errcode(connection.get()) != SQLITE_OK)
        return std::unexpected(messageOf(connection.get()));
    int looks = 0;
    sqlite3_progress_handler(
        connection.get(), stepsBetweenLooks,
        [](void* count) { return ++*static_cast<int*>(count) > mostLooks ? 1 : 0; }, &looks);
    const auto columns = columnsOf(connection.get());
    if (sqlite3_errcode(connection.get()) != SQLITE_OK && sqlite3_errcode(connection.get()) != SQLITE_DONE)
        return std::unexpected(messageOf(connection.get()));
    if (!columns.contains("id")) return std::unexpected("no table of threads");
    const Statement statement = prepare(connection.get(), queryFor(columns));
    if (!statement) return std::unexpected(messageOf(connection.get()));
    std::vector<Thread> threads;
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW)
        threads.push_back(threadAt(statement.get()));
    if (result != SQLITE_DONE) return std::unexpected(messageOf(connection.get()));
    return threads;
}

} // namespace pelorin
