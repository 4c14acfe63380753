#pragma once
// The raw facts about a database file that can be read without SQLite and without any lock: its
// size and the fields of its 100-byte header that decide whether SQLite may open it for writing.

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace QV::detail {

struct FileHeader {
  bool readable = false;  // a regular file this process can read; false if missing
  std::uint64_t size = 0;
  bool sqlite = false;  // starts with SQLite's magic string
  std::uint32_t pageSize = 0;
  int writeVersion = 0;  // 1 rollback journal, 2 WAL; above 2 SQLite may only read the file
  int readVersion = 0;
  std::uint32_t applicationId = 0;

  bool walMode() const { return writeVersion == 2 && readVersion == 2; }
  // A page size SQLite could have written: a power of two from 512 to 65536.
  bool validPageSize() const {
    return pageSize >= 512 && pageSize <= 65536 && (pageSize & (pageSize - 1)) == 0;
  }
};

FileHeader readFileHeader(const std::string& path);

// Identifies one version of a file's content: equal stamps mean nobody wrote it in between.
struct FileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = -1;
  std::int64_t modifiedNs = 0;

  bool operator==(const FileStamp& other) const;
};

// The stamp of `path`, or a default stamp if it cannot be examined.
FileStamp stampOf(const std::string& path);

bool fileExists(const std::string& path);

}  // namespace QV::detail
