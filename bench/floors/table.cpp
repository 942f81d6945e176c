// floor_table FILE: reads every row of a store's table, as a service that starts has to.
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

int main(int argc, char** argv) {
    sqlite3* database = nullptr;
    sqlite3_stmt* rows = nullptr;
    if (argc != 2 || sqlite3_open_v2(argv[1], &database, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(database, "SELECT key, value FROM property", -1, &rows, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "floor_table: %s\n", database == nullptr ? "no file" : sqlite3_errmsg(database));
        return EXIT_FAILURE;
    }
    std::vector<std::pair<std::string, std::string>> entries;
    while (sqlite3_step(rows) == SQLITE_ROW) {
        entries.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(rows, 0)),
                             reinterpret_cast<const char*>(sqlite3_column_text(rows, 1)));
    }
    std::printf("%zu\n", entries.size());
    sqlite3_finalize(rows);
    sqlite3_close(database);
    return EXIT_SUCCESS;
}
