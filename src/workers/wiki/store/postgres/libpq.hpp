// The PostgreSQL client library, loaded the first time a PostgreSQL store is
// opened instead of when the program starts. libpq brings Kerberos, LDAP and
// GnuTLS with it: loading them was more than half the command's start-up
// time (4 of 7 ms), which every call of the command paid, and a worker on
// SQLite never uses them. Only the header's types are used at build time.
#pragma once

#include <libpq-fe.h>

namespace zenthar_kodrune::workers::wiki::store::postgres {

// The functions the PostgreSQL store calls, by their own names.
struct Libpq {
  decltype(&::PQclear) PQclear = nullptr;
  decltype(&::PQconnectdb) PQconnectdb = nullptr;
  decltype(&::PQconninfoFree) PQconninfoFree = nullptr;
  decltype(&::PQconninfoParse) PQconninfoParse = nullptr;
  decltype(&::PQenterPipelineMode) PQenterPipelineMode = nullptr;
  decltype(&::PQerrorMessage) PQerrorMessage = nullptr;
  decltype(&::PQexecParams) PQexecParams = nullptr;
  decltype(&::PQexecPrepared) PQexecPrepared = nullptr;
  decltype(&::PQexitPipelineMode) PQexitPipelineMode = nullptr;
  decltype(&::PQfinish) PQfinish = nullptr;
  decltype(&::PQfreemem) PQfreemem = nullptr;
  decltype(&::PQgetResult) PQgetResult = nullptr;
  decltype(&::PQgetisnull) PQgetisnull = nullptr;
  decltype(&::PQgetlength) PQgetlength = nullptr;
  decltype(&::PQgetvalue) PQgetvalue = nullptr;
  decltype(&::PQnfields) PQnfields = nullptr;
  decltype(&::PQntuples) PQntuples = nullptr;
  decltype(&::PQpipelineSync) PQpipelineSync = nullptr;
  decltype(&::PQprepare) PQprepare = nullptr;
  decltype(&::PQresultErrorMessage) PQresultErrorMessage = nullptr;
  decltype(&::PQresultStatus) PQresultStatus = nullptr;
  decltype(&::PQsendPrepare) PQsendPrepare = nullptr;
  decltype(&::PQsendQueryParams) PQsendQueryParams = nullptr;
  decltype(&::PQsendQueryPrepared) PQsendQueryPrepared = nullptr;
  decltype(&::PQsetNoticeProcessor) PQsetNoticeProcessor = nullptr;
  decltype(&::PQsetSingleRowMode) PQsetSingleRowMode = nullptr;
  decltype(&::PQstatus) PQstatus = nullptr;
  decltype(&::PQtransactionStatus) PQtransactionStatus = nullptr;
};

// The library's functions, loaded on the first call (by any thread). When
// libpq cannot be loaded, a StoreError says so, every time it is asked for.
const Libpq& libpq();

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
