#pragma once

#include <atomic>
#include <functional>

#include <sqlite3.h>

namespace qntest {

// Lets reads and writes of the databases of this process fail, for as long as it lives.
class FaultyDatabase {
 public:
  // Asked before each operation, with 'r' or 'w'; other than SQLITE_OK is its result.
  explicit FaultyDatabase(std::function<int(char operation)> fault) {
    fault_ = std::move(fault);
    real_ = sqlite3_vfs_find("unix");
    faulty_ = *real_;
    faulty_.zName = "faulty";
    faulty_.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags,
                       int* outFlags) {
      const int code = real_->xOpen(real_, name, file, flags, outFlags);
      if (!file->pMethods) return code;
      // SQLite has another table for files that are never locked.
      const bool locked = (flags & SQLITE_OPEN_MAIN_DB) != 0;
      file->pMethods =
          locked ? Table<true>::over(*file->pMethods) : Table<false>::over(*file->pMethods);
      return code;
    };
    sqlite3_vfs_register(&faulty_, 1);
  }
  // Databases that are open still go through this class.
  ~FaultyDatabase() {
    fault_ = [](char) { return SQLITE_OK; };
    sqlite3_vfs_register(real_, 1);
  }

 private:
  static inline std::function<int(char)> fault_;
  static inline sqlite3_vfs* real_ = nullptr;
  static inline sqlite3_vfs faulty_;

  template <bool locked>
  struct Table {
    static inline sqlite3_io_methods real;
    static inline sqlite3_io_methods faulty;
    static const sqlite3_io_methods* over(const sqlite3_io_methods& methods) {
      real = faulty = methods;
      faulty.xRead = [](sqlite3_file* f, void* bytes, int count, sqlite3_int64 at) {
        const int failure = fault_('r');
        return failure ? failure : real.xRead(f, bytes, count, at);
      };
      faulty.xWrite = [](sqlite3_file* f, const void* bytes, int count, sqlite3_int64 at) {
        const int failure = fault_('w');
        return failure ? failure : real.xWrite(f, bytes, count, at);
      };
      return &faulty;
    }
  };
};

}  // namespace qntest
