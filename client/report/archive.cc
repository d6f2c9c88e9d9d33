#include "client/report/archive.h"

#include <archive.h>
#include <archive_entry.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "support/error.h"

namespace {

// What libarchive calls for each block. An exception must not pass through the library, which is
// written in C.
la_ssize_t AppendBlock(archive* /*writer*/, void* bytes, void const* block, std::size_t length) {
  try {
    static_cast<std::string*>(bytes)->append(static_cast<char const*>(block), length);
    return static_cast<la_ssize_t>(length);
  } catch (std::exception const&) {
    return -1;
  }
}

struct DeleteEntry {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

}  // namespace

struct Archive::Writer {
  Writer() : handle(archive_write_new()) {
    if (handle == nullptr) throw std::bad_alloc();
  }
  Writer(Writer const&) = delete;
  Writer& operator=(Writer const&) = delete;
  ~Writer() { archive_write_free(handle); }

  void Check(la_ssize_t result) const {
    if (result >= ARCHIVE_OK) return;
    char const* const reason = archive_error_string(handle);
    throw Support::Error("archive-not-written", std::string("The archive cannot be written: ") +
                                                    (reason != nullptr ? reason : "unknown"));
  }

  archive* const handle;
  std::string bytes;
};

Archive::Archive(std::chrono::system_clock::time_point time)
    : _time(time), _writer(std::make_unique<Writer>()) {
  archive* const handle = _writer->handle;
  _writer->Check(archive_write_set_format_pax_restricted(handle));
  _writer->Check(archive_write_add_filter_gzip(handle));
  // Without zeros after the end of the compressed bytes: gzip would warn of them.
  _writer->Check(archive_write_set_bytes_in_last_block(handle, 1));
  _writer->Check(archive_write_open(handle, &_writer->bytes, nullptr, AppendBlock, nullptr));
}

Archive::~Archive() = default;

void Archive::Add(std::string const& path, std::string const& bytes) {
  std::unique_ptr<archive_entry, DeleteEntry> const entry(archive_entry_new());
  if (!entry) throw std::bad_alloc();
  archive_entry_set_pathname(entry.get(), path.c_str());
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), 0600);
  archive_entry_set_uid(entry.get(), 0);
  archive_entry_set_gid(entry.get(), 0);
  archive_entry_set_uname(entry.get(), "root");
  archive_entry_set_gname(entry.get(), "root");
  archive_entry_set_mtime(entry.get(), std::chrono::system_clock::to_time_t(_time), 0);
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(bytes.size()));
  _writer->Check(archive_write_header(_writer->handle, entry.get()));
  _writer->Check(archive_write_data(_writer->handle, bytes.data(), bytes.size()));
}

std::string Archive::Finish() {
  _writer->Check(archive_write_close(_writer->handle));
  return std::move(_writer->bytes);
}
