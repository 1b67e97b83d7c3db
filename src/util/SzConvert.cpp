// Conversions between the platform's string list and hash (merocore.h) and
// JSON arrays and objects. Hashes are read by walking their slots, as the
// record's layout promises; they are written only through
// MLIBCSzHashSetValue, which may move the record.
#include "merocore.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {

Json::Value SzListToArray(MLIBSZLIST* list) {
  Json::Value array(Json::arrayValue);
  if (!list) return array;
  const int count = list->count;
  for (int index = 0; index < count; ++index) {
    // A null item cannot become a JSON string; the platform never stores one.
    if (const char* item = MLIBCSzListGet(list, index)) array.append(Json::Value(item));
  }
  return array;
}

bool JsonObjToSzHash(Json::Value& object, MLIBSZHASH** hash) {
  if (!object.isObject() || !hash || !*hash) return false;
  const Json::Value& members = object;
  for (auto member = members.begin(); member != members.end(); ++member) {
    const Json::Value& value = *member;
    if (!value.isConvertibleTo(Json::stringValue)) continue;  // arrays and objects
    // jsoncpp keeps names and string values NUL-terminated, so both go to
    // the hash without a copy; other scalars need their text made.
    const char* nameEnd = nullptr;
    const char* name = member.memberName(&nameEnd);
    if (value.isString()) {
      MLIBCSzHashSetValue(hash, name, value.asCString());
    } else {
      MLIBCSzHashSetValue(hash, name, value.asString().c_str());
    }
  }
  return true;
}

bool SzHashToJsonObj(MLIBSZHASH* hash, Json::Value& object) {
  if (!hash || !object.isObject()) return false;
  // The count is read again on every round, never cached.
  for (int slot = 0; slot < hash->slotCount; ++slot) {
    const char* key = hash->slots[slot].key;
    const char* value = hash->slots[slot].value;
    if (!key || !value) continue;
    object[key] = Json::Value(value);
  }
  return true;
}

}  // namespace WebAPIUtil
}  // namespace MERO
