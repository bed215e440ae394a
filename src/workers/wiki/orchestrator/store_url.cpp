// One place that turns a --store URL into a store.
#include "workers/wiki/orchestrator/store_url.hpp"

#include "workers/wiki/store/postgres/postgres_store.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

StoreUrl parse_store_url(std::string_view url) {
  constexpr std::string_view kSqlite = "sqlite:";
  if (url.empty()) return {};
  if (url.starts_with(kSqlite)) {
    return {StoreKind::Sqlite, std::string(url.substr(kSqlite.size()))};
  }
  if (url.starts_with("postgresql://") || url.starts_with("postgres://")) {
    StoreUrl parsed{StoreKind::Postgres, std::string(url)};
    try {
      store::postgres::postgres_location(parsed.target);
    } catch (const StoreError& e) {
      throw ValueError(std::string("store URL: ") + e.what());
    }
    return parsed;
  }
  // Only the scheme is named: the rest may be a URI with a password.
  const std::string_view scheme = url.substr(0, std::min(url.find(':'), std::size_t{16}));
  throw ValueError("store URL must be sqlite:PATH or postgresql://..., not one beginning \"" +
                   std::string(scheme) + "\"");
}

std::string describe_store(const StoreUrl& url) {
  if (url.kind == StoreKind::Postgres)
    return "PostgreSQL, " + store::postgres::postgres_location(url.target);
  return url.target.empty() ? "the default SQLite store" : "sqlite:" + url.target;
}

std::unique_ptr<WikiStore> open_store(const StoreUrl& url,
                                      const std::filesystem::path& checkout_root) {
  if (url.kind == StoreKind::Sqlite) {
    if (url.target.empty()) return SqliteWikiStore::open_default(checkout_root);
    return std::make_unique<SqliteWikiStore>(url.target, 60000);
  }
  // The store folder is reached without following links, as the SQLite
  // store's own is.
  const std::filesystem::path folder = SqliteWikiStore::default_path({}).parent_path();
  const SafeDir local = SafeDir::open(checkout_root, folder, true);
  return std::make_unique<store::postgres::PostgresWikiStore>(url.target,
                                                              local.path() / "file-hashes.db");
}

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
