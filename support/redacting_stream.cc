#include "support/redacting_stream.h"

#include <re2/re2.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "base/text.h"
#include "support/redaction_rules.h"

// The text is cut into lines first, so the pieces that it arrives in have no effect. What needs
// more than one line is here, the expressions see one line:
//
//   long line   Only its length is kept, the markers of PEM blocks that it has, and whether the
//               field of a trace line is open at its end.
//   PEM block   From BEGIN on, lines are only added to a digest, which END turns into a
//               placeholder. A cut-off block would swallow the rest of a log, so trace lines come
//               through; after them the block goes on, because lines of other programs may stand
//               between those of a block in the journal.
//   open field  dmidecode may print remarks before the serial number, so that the number stands
//               at the end of a trace line that takes several lines.

namespace Support {

namespace {

constexpr std::size_t deliverySize = std::size_t{64} << 10U;
constexpr std::string_view fieldsEnd = "\" }";
constexpr std::size_t npos = std::string_view::npos;

struct Marker {
  std::size_t begin = npos;
  std::size_t end = npos;
};

// "-----BEGIN" or "---- BEGIN" from `start` on; likewise with END.
Marker FindMarker(std::string_view text, std::string_view word, std::size_t start) {
  for (std::size_t at = text.find(word, start); at != npos; at = text.find(word, at + 1)) {
    for (std::string_view const dashes : {"-----", "---- "}) {
      std::size_t const length = dashes.size();
      if (at >= start + length && text.substr(at - length, length) == dashes)
        return {at - length, at + word.size()};
    }
  }
  return {};
}

constexpr std::string_view beginWord = "BEGIN";
constexpr std::string_view endWord = "END";
constexpr std::size_t maxMarkerLength = 10;

std::size_t FindLastMarker(std::string_view text, std::string_view word) {
  std::size_t last = npos;
  for (Marker marker = FindMarker(text, word, 0); marker.begin != npos;
       marker = FindMarker(text, word, marker.end)) {
    last = marker.begin;
  }
  return last;
}

// The place behind the next END with its label.
std::size_t FindBlockEnd(std::string_view text, std::size_t start) {
  constexpr std::size_t maxLabelLength = 80;
  Marker const marker = FindMarker(text, endWord, start);
  if (marker.begin == npos) return npos;
  std::string_view const label = text.substr(0, marker.end + maxLabelLength);
  std::size_t const dashes = label.find("----", marker.end);
  if (dashes == npos) return marker.end;
  // The dashes may be those of the next block.
  std::size_t const end = std::min(text.find_first_not_of('-', dashes), text.size());
  return std::min(end, FindMarker(label, beginWord, marker.end).begin);
}

bool IsTraceLine(std::string_view line) {
  static RE2 const expression(traceLinePattern, RE2::Latin1);
  return RE2::PartialMatch(re2::StringPiece(line.data(), line.size()), expression);
}

}  // namespace

void RedactingStream::BlockDigest::Add(std::string_view bytes) {
  for (char const c : bytes) {
    bool const isEscape = std::exchange(_afterBackslash, c == '\\') && (c == 'n' || c == 'r');
    if (isEscape || c == '\\' || Base::whiteSpace.find(c) != npos) continue;
    _hash = (_hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;  // FNV-1a
    ++_length;
  }
}

std::string RedactingStream::BlockDigest::Take() {
  std::string const digest = std::to_string(_hash) + ":" + std::to_string(_length);
  bool const isEmpty = _length == 0;
  *this = BlockDigest();
  return isEmpty ? "" : "PEM:" + digest;
}

RedactingStream::RedactingStream(Redactor& redactor, Sink sink)
    : _redactor(redactor), _sink(std::move(sink)), _maxLineLength(redactor.GetMaxLineLength()) {}

void RedactingStream::Write(std::string_view piece) {
  while (!piece.empty()) {
    std::size_t const lineFeed = std::min(piece.find('\n'), piece.size());
    bool const isComplete = lineFeed < piece.size();
    std::string_view const part = piece.substr(0, lineFeed);
    if (isComplete && _line.empty() && !_isLineLong && part.size() <= _maxLineLength) {
      TakeLine(part, "\n");
    } else {
      AddPart(part);
      if (isComplete) EndLine("\n");
    }
    piece.remove_prefix(isComplete ? lineFeed + 1 : lineFeed);
    Deliver(deliverySize);
  }
  Deliver(1);
}

void RedactingStream::Finish() {
  if (std::exchange(_hasFinished, true)) return;
  if (_isLineLong || !_line.empty()) EndLine("");
  if (_isInBlock && EndBlock() && _isBlockLineComplete) _out += '\n';
  Deliver(1);
}

void RedactingStream::AddPart(std::string_view part) {
  if (!_isLineLong) {
    std::size_t const room = std::min(_maxLineLength - _line.size(), part.size());
    _line.append(part.substr(0, room));
    part.remove_prefix(room);
    if (part.empty()) return;
    _longLine = LongLine();
    _longLine.isInBlock = _isInBlock;
    _isLineLong = true;
    if (_openField == OpenField::None || IsTraceLine(_line)) _openField = FindOpenField(_line);
    AddLongLinePart(_line);
    _line.clear();
  }
  AddLongLinePart(part);
}

void RedactingStream::AddLongLinePart(std::string_view part) {
  _longLine.length += part.size();
  if (_isInBlock) _digest.Add(part);
  std::string window = _longLine.tail;
  window.append(part);
  std::size_t const begin = FindLastMarker(window, beginWord);
  std::size_t const end = FindLastMarker(window, endWord);
  if (end != npos) _longLine.hasBlockEnd = true;
  if (begin != npos || end != npos)
    _longLine.isInBlock = end == npos || (begin != npos && begin > end);
  _longLine.tail = window.substr(window.size() - std::min(window.size(), maxMarkerLength - 1));
}

void RedactingStream::EndLine(std::string_view lineFeed) {
  if (!_isLineLong) {
    TakeLine(_line, lineFeed);
    _line.clear();
    return;
  }
  _isLineLong = false;
  _isBlockLineComplete = !lineFeed.empty();
  if (_isInBlock && !_longLine.hasBlockEnd) return;
  if (_isInBlock) EndBlock();
  _isInBlock = _longLine.isInBlock;
  std::string_view const tail = Base::TrimWhiteSpace(_longLine.tail);
  if (tail.ends_with(fieldsEnd)) _openField = OpenField::None;
  _out += "<line of " + std::to_string(_longLine.length) + " bytes left out>";
  _out += lineFeed;
}

void RedactingStream::TakeLine(std::string_view line, std::string_view lineFeed) {
  std::string_view const carriageReturn = line.ends_with('\r') ? "\r" : "";
  line.remove_suffix(carriageReturn.size());
  if (_isInBlock) {
    std::size_t const blockEnd = FindBlockEnd(line, 0);
    if (blockEnd != npos) {
      _digest.Add(line.substr(0, blockEnd));
      EndBlock();
      _isInBlock = false;
      line.remove_prefix(blockEnd);
    } else if (IsTraceLine(line)) {
      if (EndBlock()) _out += '\n';
    } else {
      _digest.Add(line);
      _isBlockLineComplete = !lineFeed.empty();
      return;
    }
  }
  if (_openField != OpenField::None && IsTraceLine(line)) _openField = OpenField::None;
  if (_openField != OpenField::None) {
    TakeFieldLine(line);
  } else {
    if (!TakeText(line)) {
      _isBlockLineComplete = !lineFeed.empty();
      return;
    }
    _openField = FindOpenField(line);
  }
  _out += carriageReturn;
  _out += lineFeed;
}

bool RedactingStream::TakeText(std::string_view text) {
  _blocks.clear();
  for (Marker begin = FindMarker(text, beginWord, 0); begin.begin != npos;) {
    std::size_t const end = FindBlockEnd(text, begin.end);
    _digest.Add(text.substr(begin.begin, end == npos ? npos : end - begin.begin));
    if (end == npos) {
      _redactor.AppendRedacted(text.substr(0, begin.begin), _blocks, _out);
      _isInBlock = true;
      return false;
    }
    _blocks.push_back({begin.begin, end, _digest.Take()});
    begin = FindMarker(text, beginWord, end);
  }
  _redactor.AppendRedacted(text, _blocks, _out);
  return true;
}

void RedactingStream::TakeFieldLine(std::string_view line) {
  bool const isLast = line.ends_with(fieldsEnd);
  if (isLast) line.remove_suffix(fieldsEnd.size());
  std::string_view const value = Base::TrimWhiteSpace(line);
  if (!value.empty()) {
    _redactor.AppendPlaceholder(
        _openField == OpenField::SerialNumber ? serialNumberRule : commandOutputRule, value, _out);
  }
  if (!isLast) return;
  _out += fieldsEnd;
  _openField = OpenField::None;
}

RedactingStream::OpenField RedactingStream::FindOpenField(std::string_view line) {
  if (line.ends_with(fieldsEnd)) return OpenField::None;
  bool const hasSerialNumber = line.find(" serialNumber:\"") != npos;
  if (!hasSerialNumber && line.find(" output:\"") == npos) return OpenField::None;
  if (!IsTraceLine(line)) return OpenField::None;
  bool const isSerialNumber = hasSerialNumber || line.find("dmidecode") != npos;
  return isSerialNumber ? OpenField::SerialNumber : OpenField::CommandOutput;
}

bool RedactingStream::EndBlock() {
  std::string const value = _digest.Take();
  if (!value.empty()) _redactor.AppendPlaceholder(pemRule, value, _out);
  return !value.empty();
}

void RedactingStream::Deliver(std::size_t threshold) {
  if (_out.size() < threshold) return;
  _sink(_out);
  _out.clear();
}

}  // namespace Support
