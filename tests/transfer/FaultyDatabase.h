#pragma once

#include <functional>

#include <sqlite3.h>

namespace qntest {

// Lets reads and writes of the databases of this process fail while it lives: `fault` is asked
// before each, with 'r' or 'w', for its result.
class FaultyDatabase {
 public:
  explicit FaultyDatabase(std::function<int(char)> fault) {
    fault_ = std::move(fault);
    static sqlite3_vfs faulty;
    faulty = *real_;
    faulty.zName = "faulty";
    faulty.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out) {
      const int code = real_->xOpen(real_, name, file, flags, out);
      // Files that are never locked have another table.
      if (file->pMethods) flags& SQLITE_OPEN_MAIN_DB ? wrap<true>(*file) : wrap<false>(*file);
      return code;
    };
    sqlite3_vfs_register(&faulty, 1);
  }
  ~FaultyDatabase() {
    fault_ = [](char) { return SQLITE_OK; };  // of databases that are still open
    sqlite3_vfs_register(real_, 1);
  }

 private:
  template <bool>
  static void wrap(sqlite3_file& file) {
    static sqlite3_io_methods real, faulty;
    real = faulty = *file.pMethods;
    faulty.xRead = [](sqlite3_file* f, void* bytes, int count, sqlite3_int64 at) {
      const int failure = fault_('r');
      return failure ? failure : real.xRead(f, bytes, count, at);
    };
    faulty.xWrite = [](sqlite3_file* f, const void* bytes, int count, sqlite3_int64 at) {
      const int failure = fault_('w');
      return failure ? failure : real.xWrite(f, bytes, count, at);
    };
    file.pMethods = &faulty;
  }

  static inline std::function<int(char)> fault_;
  static inline sqlite3_vfs* const real_ = sqlite3_vfs_find("unix");
};

}  // namespace qntest
