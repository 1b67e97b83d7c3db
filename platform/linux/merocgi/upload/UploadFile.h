// A file being received into a directory. It has no name until Commit
// gives it its final one: it is created unnamed (O_TMPFILE), or, where the
// file system cannot, under a hidden temporary name that the destructor
// removes unless Commit succeeded. So nothing half-written ever carries a
// final name, and with O_TMPFILE nothing at all is left by a killed process.
#ifndef MEROCGI_UPLOAD_UPLOADFILE_H
#define MEROCGI_UPLOAD_UPLOADFILE_H

#include <cstddef>
#include <string>

#include "mero_owners.h"

namespace merocgi {

class UploadFile {
 public:
  UploadFile() = default;
  UploadFile(UploadFile&& other) noexcept;
  UploadFile& operator=(UploadFile&&) = delete;
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;
  ~UploadFile();

  // Creates the file in the directory open as `dirFd` (which must outlive
  // this object). False with errno set.
  bool Create(int dirFd);
  // Writes all of `data`. False with errno set.
  bool Write(const char* data, size_t size);
  // Gives the file `name` in its directory, replacing a file of that name,
  // or, with `replace` false, failing with errno EEXIST when one exists.
  // False with errno set; the file then keeps no name.
  bool Commit(const char* name, bool replace);

 private:
  bool LinkAs(const char* name);
  void Discard();

  int dirFd_ = -1;
  mero::UniqueFd fd_;
  std::string tempName_;  // set while the file has a temporary name
};

}  // namespace merocgi

#endif  // MEROCGI_UPLOAD_UPLOADFILE_H
