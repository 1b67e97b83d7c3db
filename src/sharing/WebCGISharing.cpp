// The sharing context of a request: the link id and sharing session id it
// carries, the link's records, and the base address of links.
#include <cstdlib>
#include <string>

#include "../cgi/WebCGIPrivate.h"
#include "merosharing.h"
#include "webapi/WebCGI.h"

namespace MERO {

void WebCGI::LoadSharing() {
  const char* header = std::getenv(SZ_X_SHARING_HEADER);
  const char* id = MeroCgiGetCGIParam(priv->State(), "_sharing_id", "");
  const char* sid = MeroCgiGetCGIParam(priv->State(), "_sharing_sid", "");
  priv->sharingId = id ? id : "";
  priv->sharingSid = sid ? sid : "";
  // The parameter wins over the header for the link id, and over the cookie
  // for the session id.
  if (priv->sharingId.empty() && header) priv->sharingId = header;
  if (priv->sharingSid.empty()) {
    const char* cookie = MeroCgiGetInCookies(priv->State(), sharing::SZK_SHARING_SID, "");
    priv->sharingSid = cookie ? cookie : "";
  }
  if (priv->sharingId.empty()) return;  // not a sharing request: the store stays closed

  sharing::db::SharingDB& database = sharing::db::SharingDB::Instance();
  const sharing::db::EntryDB entries(database);
  const sharing::db::SessionDB sessions(database);
  const sharing::db::TokenDB tokens(database);
  if (!database.IsGood()) return;
  // What is not found is not decided here: the authorization call judges
  // the ids itself.
  entries.GetByHash(priv->sharingId, priv->sharingEntry);
  sessions.GetBySessionId(priv->sharingSid, priv->sharingSession);
  tokens.GetBySessionEntry(priv->sharingSession, priv->sharingEntry, priv->sharingToken);
}

std::string WebCGI::GetSharingID() { return priv->sharingId; }

std::string WebCGI::GetSharingSID() { return priv->sharingSid; }

sharing::record::Entry WebCGI::GetSharingEntry() { return priv->sharingEntry; }

sharing::record::Session WebCGI::GetSharingSession() { return priv->sharingSession; }

sharing::record::Token WebCGI::GetSharingToken() { return priv->sharingToken; }

void WebCGIPrivate::LoadSharingURL() {
  if (sharingURLLoaded) return;
  LoadURL();
  const char* portal = std::getenv("REWRITE_APP");
  sharing::_tag_SHARING_URL_TYPE type = sharing::SHARING_URL_NONE;
  sharing::GetSharingURL(host, port, protocol == "https", portal ? portal : "", sharingURL, type);
  sharingURLType = type;
  sharingURLLoaded = true;
}

std::string WebCGI::GetSharingURL(const std::string& fallback) {
  priv->LoadSharingURL();
  return priv->sharingURL.empty() ? fallback : priv->sharingURL;
}

sharing::_tag_SHARING_URL_TYPE WebCGI::GetSharingURLType() {
  priv->LoadSharingURL();
  return static_cast<sharing::_tag_SHARING_URL_TYPE>(priv->sharingURLType);
}

}  // namespace MERO
