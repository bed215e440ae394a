// Opening the wiki store a URL names, for every command that takes --store
// (or the environment variable KODRUNE_WIKI_STORE):
//   sqlite:PATH      an SQLite file (a relative PATH is taken from the
//                    current folder); "sqlite:" alone, or no URL at all, is
//                    the default file under the repository root
//                    (SqliteWikiStore::open_default)
//   postgresql://... a libpq connection URI (postgres:// too): the shared
//                    store (postgres_store.hpp), with the file hash cache
//                    kept locally in R/memory/orvane/.store/file-hashes.db
// A URL may hold a password; nothing here ever repeats one.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

inline constexpr std::string_view STORE_ENV = "KODRUNE_WIKI_STORE";

enum class StoreKind { Sqlite, Postgres };

struct StoreUrl {
  StoreKind kind = StoreKind::Sqlite;
  // The SQLite file (empty: the default), or the libpq URI as given.
  std::string target;
};

// A ValueError for anything but the forms above (the message does not
// repeat a URL that may hold a password).
StoreUrl parse_store_url(std::string_view url);

// The URL for messages: an SQLite path as given, a PostgreSQL URI as its
// host and database only.
std::string describe_store(const StoreUrl& url);

std::unique_ptr<WikiStore> open_store(const StoreUrl& url,
                                      const std::filesystem::path& checkout_root);

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
