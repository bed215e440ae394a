// Loading libpq with dlopen, once per process.
#include "workers/wiki/store/postgres/libpq.hpp"

#include <dlfcn.h>

#include <mutex>
#include <optional>
#include <string>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki::store::postgres {

namespace {

// The soname of libpq's stable interface (every libpq since PostgreSQL 8.2).
constexpr const char* kLibpqName = "libpq.so.5";

// A function of the library into its slot; false when the library lacks it.
template <class Function>
bool bind(void* library, Function& slot, const char* name) {
  slot = reinterpret_cast<Function>(::dlsym(library, name));
  return slot != nullptr;
}

struct Loaded {
  Libpq api;
  std::string error;  // why the library could not be loaded; empty once loaded
};

Loaded load() {
  Loaded loaded;
  // Never closed: the library stays for the process's life, as a linked one would.
  void* library = ::dlopen(kLibpqName, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = ::dlerror();
    loaded.error = why != nullptr ? why : "unknown error";
    return loaded;
  }
  Libpq& api = loaded.api;
  const char* missing = nullptr;
  if (!bind(library, api.PQclear, "PQclear")) missing = "PQclear";
  if (!bind(library, api.PQconnectdb, "PQconnectdb")) missing = "PQconnectdb";
  if (!bind(library, api.PQconninfoFree, "PQconninfoFree")) missing = "PQconninfoFree";
  if (!bind(library, api.PQconninfoParse, "PQconninfoParse")) missing = "PQconninfoParse";
  if (!bind(library, api.PQenterPipelineMode, "PQenterPipelineMode"))
    missing = "PQenterPipelineMode";
  if (!bind(library, api.PQerrorMessage, "PQerrorMessage")) missing = "PQerrorMessage";
  if (!bind(library, api.PQexecParams, "PQexecParams")) missing = "PQexecParams";
  if (!bind(library, api.PQexecPrepared, "PQexecPrepared")) missing = "PQexecPrepared";
  if (!bind(library, api.PQexitPipelineMode, "PQexitPipelineMode")) missing = "PQexitPipelineMode";
  if (!bind(library, api.PQfinish, "PQfinish")) missing = "PQfinish";
  if (!bind(library, api.PQfreemem, "PQfreemem")) missing = "PQfreemem";
  if (!bind(library, api.PQgetResult, "PQgetResult")) missing = "PQgetResult";
  if (!bind(library, api.PQgetisnull, "PQgetisnull")) missing = "PQgetisnull";
  if (!bind(library, api.PQgetlength, "PQgetlength")) missing = "PQgetlength";
  if (!bind(library, api.PQgetvalue, "PQgetvalue")) missing = "PQgetvalue";
  if (!bind(library, api.PQnfields, "PQnfields")) missing = "PQnfields";
  if (!bind(library, api.PQntuples, "PQntuples")) missing = "PQntuples";
  if (!bind(library, api.PQpipelineSync, "PQpipelineSync")) missing = "PQpipelineSync";
  if (!bind(library, api.PQprepare, "PQprepare")) missing = "PQprepare";
  if (!bind(library, api.PQresultErrorMessage, "PQresultErrorMessage"))
    missing = "PQresultErrorMessage";
  if (!bind(library, api.PQresultStatus, "PQresultStatus")) missing = "PQresultStatus";
  if (!bind(library, api.PQsendPrepare, "PQsendPrepare")) missing = "PQsendPrepare";
  if (!bind(library, api.PQsendQueryParams, "PQsendQueryParams")) missing = "PQsendQueryParams";
  if (!bind(library, api.PQsendQueryPrepared, "PQsendQueryPrepared"))
    missing = "PQsendQueryPrepared";
  if (!bind(library, api.PQsetNoticeProcessor, "PQsetNoticeProcessor"))
    missing = "PQsetNoticeProcessor";
  if (!bind(library, api.PQsetSingleRowMode, "PQsetSingleRowMode")) missing = "PQsetSingleRowMode";
  if (!bind(library, api.PQstatus, "PQstatus")) missing = "PQstatus";
  if (!bind(library, api.PQtransactionStatus, "PQtransactionStatus"))
    missing = "PQtransactionStatus";
  if (missing != nullptr) loaded.error.append(kLibpqName).append(" has no ").append(missing);
  return loaded;
}

}  // namespace

const Libpq& libpq() {
  static std::once_flag once;
  static std::optional<Loaded> loaded;
  std::call_once(once, [] { loaded.emplace(load()); });
  if (!loaded->error.empty()) {
    // Appended, not concatenated: GCC 12 warns falsely on the latter.
    std::string message = "wiki store: the PostgreSQL client library cannot be loaded (";
    message.append(loaded->error).append("); install libpq5 to use a PostgreSQL store");
    throw StoreError(message);
  }
  return loaded->api;
}

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
