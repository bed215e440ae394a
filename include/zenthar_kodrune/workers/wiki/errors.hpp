// The wiki worker's exceptions. Every failure propagates as one of these (or a
// std:: exception from below), each with a message naming the key, page id or
// path that was wrong. `kind()` names the class; the rpc protocol reports it
// for the four kinds it knows (key, type and value errors, and invalid
// requests) and reports every other failure, a store error among them, as
// "os_error".
#pragma once

#include <stdexcept>
#include <string>

namespace zenthar_kodrune::workers::wiki {

class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  virtual const char* kind() const noexcept = 0;
};

// A required key is missing (a row's "page_id", an amendment's "action").
class KeyError : public Error {
 public:
  using Error::Error;
  const char* kind() const noexcept override { return "key_error"; }
};

// A value of the wrong JSON type where a text, number, list or mapping is needed.
class TypeError : public Error {
 public:
  using Error::Error;
  const char* kind() const noexcept override { return "type_error"; }
};

// A value of the right type that cannot be used (a line number "12a").
class ValueError : public Error {
 public:
  using Error::Error;
  const char* kind() const noexcept override { return "value_error"; }
};

// A file-system or operating-system failure.
class OsError : public Error {
 public:
  using Error::Error;
  const char* kind() const noexcept override { return "os_error"; }
};

// A path that names a symbolic link, a folder or a device where a regular
// file was wanted.
class NotRegularFile : public OsError {
 public:
  using OsError::OsError;
};

// The store failed, or holds data it cannot decode.
class StoreError : public Error {
 public:
  using Error::Error;
  const char* kind() const noexcept override { return "store_error"; }
};

}  // namespace zenthar_kodrune::workers::wiki
