#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "base/exception.h"

namespace Support {

// A failure as a person and a program both can use it:
//
//   code     stable words with hyphens, such as "socket-permission-denied". Programs compare it, so
//            it never changes its meaning.
//   message  one sentence for people; `what()` returns it
//   advice   what the person can do about it; may be empty
//   fields   the facts of this one case, such as a path
//   cause    the failure below this one, if there is one
//
// Thrown by value, copyable. Threads: any, one at a time.
class Error final : public Base::Exception {
 public:
  Error(std::string code, std::string message, std::string advice = {});

  // Returns an Error as it is. Another exception becomes an Error without advice, whose message is
  // `what()`: of a failed system call with the code "system-call-failed" and the field "errno",
  // else with the code "failed".
  static Error FromException(std::exception const& exception);

  // Adds a field, or replaces it; adds the cause. Both return this Error, so that calls can follow
  // each other.
  Error& With(std::string const& name, nlohmann::json value);
  Error& Because(std::exception const& cause);

  std::string const& GetCode() const { return _code; }
  std::string const& GetAdvice() const { return _advice; }
  nlohmann::json const& GetFields() const { return _fields; }

  // Null when there is no cause.
  Error const* GetCause() const { return _cause.get(); }

  // {"code": ..., "message": ..., "advice": ..., "fields": {...}, "cause": {...}}: the first two
  // always, the others unless they are empty. The cause has the same form.
  nlohmann::json ToJson() const;

  // The message and, each on lines of its own below, the fields, the advice and the cause with its
  // fields, each line indented by `indent` spaces and ended by a line feed.
  std::string ToText(int indent = 0) const;

 private:
  std::string _code;
  std::string _advice;
  nlohmann::json _fields = nlohmann::json::object();
  std::shared_ptr<Error const> _cause;  // shared by copies; nobody changes it
};

}  // namespace Support
