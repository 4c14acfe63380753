#include "file_header.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace QV::detail {

namespace {

constexpr char kMagic[] = "SQLite format 3";  // with its terminating NUL: 16 bytes
constexpr std::size_t kHeaderBytes = 100;

std::uint32_t bigEndian(const unsigned char* bytes, int count) {
  std::uint32_t value = 0;
  for (int i = 0; i < count; ++i) {
    value = (value << 8) | bytes[i];
  }
  return value;
}

// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

FileHeader readFileHeader(const std::string& path) {
  FileHeader header;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return header;
  }
  header.readable = true;
  header.size = static_cast<std::uint64_t>(status.st_size);
  unsigned char bytes[kHeaderBytes] = {};
  if (::pread(file.get(), bytes, kHeaderBytes, 0) != static_cast<ssize_t>(kHeaderBytes) ||
      std::memcmp(bytes, kMagic, sizeof kMagic) != 0) {
    return header;
  }
  header.sqlite = true;
  // 1 stands for 65536, which does not fit the two bytes.
  const std::uint32_t pageSize = bigEndian(bytes + 16, 2);
  header.pageSize = pageSize == 1 ? 65536 : pageSize;
  header.writeVersion = bytes[18];
  header.readVersion = bytes[19];
  header.applicationId = bigEndian(bytes + 68, 4);
  return header;
}

bool FileStamp::operator==(const FileStamp& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         modifiedNs == other.modifiedNs;
}

FileStamp stampOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return {};
  }
  return {status.st_dev, status.st_ino, status.st_size,
          std::int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec};
}

bool fileExists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

}  // namespace QV::detail
