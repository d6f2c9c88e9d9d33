#include "trace/trace_arguments.h"

#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("arguments");

namespace Trace {

namespace {

// Deliberate: only these lines have a comma between two fields.
template <typename Value>
struct AfterComma {
  TraceField<Value> field;
};

template <typename Value>
void AppendField(std::string& out, AfterComma<Value> const& next) {
  out.append(",");
  Trace::AppendField(out, next.field);
}

template <typename First, typename... Rest>
void WriteArgumentLine(std::string_view message, TraceField<First> const& first,
                       TraceField<Rest> const&... rest) {
  WriteLine(*traceModule, levelVerbose, message, first, AfterComma<Rest>{rest}...);
}

void TraceArgument(Argument const& argument) {
  bool const commandLine = argument.kind % 2 != 0;
  if ((argument.kind & argumentNamed) != 0) {
    WriteArgumentLine("Found named arg", As("argument", argument.text), As("name", argument.name),
                      As("value", argument.value), As("commandLine", commandLine));
  } else if ((argument.kind & argumentFlag) != 0) {
    WriteArgumentLine("Found flag", As("argument", argument.text), As("name", argument.name),
                      As("commandLine", commandLine));
  } else if ((argument.kind & argumentField) != 0) {
    WriteArgumentLine("Found field", As("argument", argument.text), As("commandLine", commandLine));
  } else {
    WriteArgumentLine("Found argument", As("flags", argument.kind));
  }
}

}  // namespace

void TraceArguments() {
  if (!IsTraceEnabled(levelVerbose)) return;
  for (Argument const& argument : GetArguments()) TraceArgument(argument);
}

}  // namespace Trace
