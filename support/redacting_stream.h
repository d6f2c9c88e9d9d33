#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/redactor.h"

namespace Support {

// Redacts a text that arrives in pieces, such as one file. Where the pieces are cut does not
// matter. Streams of one Redactor share its placeholders and counts.
//
//   lines        A line is redacted once it is complete. Its end, "\n" or "\r\n", stays as it is.
//   long lines   A line of more than `maxLineLength` bytes becomes "<line of N bytes left out>".
//   PEM blocks   A block over several lines becomes one placeholder. Without its END everything to
//                the end of the stream belongs to the block, except lines of a trace.
//   trace lines  A serial number or output that contains line feeds is replaced line by line, up to
//                the end of its trace line.
//
// Holds one line of at most `maxLineLength` bytes, and its redacted text.
//
// Lifetime: the Redactor outlives the stream. Threads: those of the Redactor.
class RedactingStream {
 public:
  // Takes a piece of the redacted text, which is valid during the call. What it throws leaves
  // `Write` or `Finish`; the stream cannot be used after that.
  using Sink = std::function<void(std::string_view)>;

  RedactingStream(Redactor& redactor, Sink sink);

  // Takes a piece of the text, and calls the sink with what is complete.
  void Write(std::string_view piece);

  // Ends the text: the last line needs no line feed. Call it once, after the last `Write`; without
  // it the end of the text is missing. A second call does nothing.
  void Finish();

 private:
  // The value of a trace field that goes on in the next line.
  enum class OpenField { None, SerialNumber, CommandOutput };

  // What identifies the content of a PEM block: a hash without white space and escapes of it, so
  // that a block in one line is the same as the block over several lines.
  class BlockDigest {
   public:
    void Add(std::string_view bytes);
    std::string Take();  // empty if nothing was added; begins anew

   private:
    std::uint64_t _hash = 0;
    std::uint64_t _length = 0;
    bool _afterBackslash = false;
  };

  // What is kept of a line that is too long.
  struct LongLine {
    std::size_t length = 0;
    std::string tail;          // the last bytes
    bool isInBlock = false;    // whether a PEM block is open at its end
    bool hasBlockEnd = false;  // whether it has an END
  };

  static OpenField FindOpenField(std::string_view line);

  void AddPart(std::string_view part);
  void AddLongLinePart(std::string_view part);
  void EndLine(std::string_view lineFeed);
  void TakeLine(std::string_view line, std::string_view lineFeed);
  bool TakeText(std::string_view text);  // false: a PEM block is open at its end
  void TakeFieldLine(std::string_view line);
  bool EndBlock();  // false: nothing was in it
  void Deliver(std::size_t threshold);

  Redactor& _redactor;
  Sink _sink;
  std::size_t const _maxLineLength;
  std::string _line;  // the incomplete line
  std::string _out;   // redacted, not yet delivered
  LongLine _longLine;
  OpenField _openField = OpenField::None;
  BlockDigest _digest;  // of the open PEM block
  std::vector<Redactor::Block> _blocks;
  bool _isLineLong = false;
  bool _isInBlock = false;
  bool _isBlockLineComplete = false;  // whether the block's last line had a line feed
  bool _hasFinished = false;
};

}  // namespace Support
