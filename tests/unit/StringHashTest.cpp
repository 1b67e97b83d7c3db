// The platform string list and hash: the growth and ownership rules callers
// rely on (copies of keys and values, the record replaced through the
// caller's pointer, every pair inside slots 0 .. slotCount-1).
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "mero_owners.h"
#include "merocore.h"

namespace {

TEST(StringHashTest, StoresCopiesAndReplacesExistingKeysInPlace) {
  mero::UniqueSzHash owner(MLIBCSzHashAlloc(256));
  MLIBSZHASH* hash = owner.release();
  std::string key = "name", value = "first";
  ASSERT_EQ(MLIBCSzHashSetValue(&hash, key.c_str(), value.c_str()), 0);
  key[0] = 'X';  // the caller's temporaries change; the hash must not see it
  value[0] = 'X';
  EXPECT_STREQ(MLIBCSzHashGetValue(hash, "name"), "first");
  EXPECT_EQ(MLIBCSzHashSetValue(&hash, "name", "second"), 0);  // same slot, no second pair
  EXPECT_EQ(hash->slotCount, 1);
  EXPECT_STREQ(MLIBCSzHashGetValue(hash, "name"), "second");
  EXPECT_EQ(MLIBCSzHashGetValue(hash, "absent"), nullptr);
  EXPECT_EQ(MLIBCSzHashSetValue(&hash, nullptr, "v"), -1);
  owner.reset(hash);
}

TEST(StringHashTest, GrowsThroughTheCallersPointerAndKeepsEveryPairInTheWalk) {
  MLIBSZHASH* hash = MLIBCSzHashAlloc(1);
  ASSERT_NE(hash, nullptr);
  const int pairs = 5000;
  for (int i = 0; i < pairs; ++i)
    ASSERT_GE(MLIBCSzHashSetValue(&hash, ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()), 0);
  mero::UniqueSzHash owner(hash);
  ASSERT_EQ(hash->slotCount, pairs);
  for (int i = 0; i < pairs; ++i) {  // the walk readers do, in insertion order
    ASSERT_STREQ(hash->slots[i].key, ("k" + std::to_string(i)).c_str());
    ASSERT_STREQ(MLIBCSzHashGetValue(hash, hash->slots[i].key), std::to_string(i).c_str());
  }

  MLIBSZLIST* list = MLIBCSzListAlloc(256);
  ASSERT_EQ(MLIBCSzHashEnumKey(hash, &list), pairs);  // grows the list past 256
  mero::UniqueSzList listOwner(list);
  ASSERT_EQ(list->count, pairs);
  std::set<std::string> keys;
  for (int i = 0; i < list->count; ++i) keys.insert(MLIBCSzListGet(list, i));
  EXPECT_EQ(keys.size(), static_cast<size_t>(pairs));
  EXPECT_EQ(MLIBCSzListGet(list, pairs), nullptr);
  EXPECT_EQ(MLIBCSzListGet(list, -1), nullptr);
}

}  // namespace
