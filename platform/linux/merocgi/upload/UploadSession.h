// The upload a CGI state is receiving (its `upload` word), freed with the
// state.
#ifndef MEROCGI_UPLOAD_UPLOADSESSION_H
#define MEROCGI_UPLOAD_UPLOADSESSION_H

struct _tag_MEROCGI_UPLOAD;

namespace merocgi {

// Frees the upload and whatever it still holds (files not given their name
// are removed). Null is accepted.
void FreeUpload(_tag_MEROCGI_UPLOAD* upload);

}  // namespace merocgi

#endif  // MEROCGI_UPLOAD_UPLOADSESSION_H
