// The session store under the platform's own operations: the last-seen
// write of a check, and records that no longer decode.
#include <gtest/gtest.h>
#include <lmdb.h>
#include <time.h>

#include <string>
#include <vector>

#include "ApplianceRootEnv.h"
#include "merocgi.h"
#include "session/SessionDb.h"
#include "session/SessionKeys.h"

namespace {

merocgi::SessionRow Row(const std::string& sid, const std::string& user, int64_t created,
                        int64_t lifetime, int64_t idleMinutes) {
  merocgi::SessionRow row;
  row.idHash = merocgi::SessionIdHash(sid);
  row.registry = "test.current.users";
  row.user = user;
  row.client = "127.0.0.1";
  row.created = row.lastSeen = created;
  row.lifetime = lifetime;
  row.csrf = "token";
  row.idleMinutes = idleMinutes;
  return row;
}

class SessionStoreTest : public webapi_test::ApplianceRootTest {
 protected:
  // A session stored directly, last seen when it was created, with the idle
  // limit of its checks given; returns its id.
  std::string Store(int64_t created, int64_t idleMinutes = 30, const std::string& user = "alice",
                    int64_t lifetime = 0) {
    const std::string sid = merocgi::NewSessionId();
    merocgi::SessionDb db;  // closed again before the platform opens the store
    EXPECT_EQ(db.Open(merocgi::SessionDb::Access::kWriter), merocgi::SessionDb::OpenResult::kOpened);
    EXPECT_EQ(db.Insert(Row(sid, user, created, lifetime, idleMinutes), false), 1);
    return sid;
  }

  merocgi::SessionRow Stored(const std::string& sid) {
    merocgi::SessionDb db;
    merocgi::SessionRow row;
    EXPECT_EQ(db.Open(merocgi::SessionDb::Access::kRequest), merocgi::SessionDb::OpenResult::kOpened);
    EXPECT_EQ(db.Find(merocgi::SessionIdHash(sid), "test.current.users", &row), 1);
    return row;
  }
  int64_t LastSeen(const std::string& sid) { return Stored(sid).lastSeen; }

  int Check(const std::string& sid, int timeoutMinutes) {
    MEROCGI_STATE state;
    MeroCgiInitEx(&state, timeoutMinutes, 1, "test", "");
    char user[64] = {};
    const MEROCGI_AUTH_OPTIONS options = {31, 0};
    const int result = MeroCgiIsAuthorizedEx(&state, sid.c_str(), user, sizeof user, &options, nullptr);
    MeroCgiFree(&state);
    return result;
  }
};

TEST_F(SessionStoreTest, ACheckWritesStaleLastSeenTimesOnly) {
  const int64_t now = time(nullptr);
  const std::string stale = Store(now - 120);
  const std::string fresh = Store(now - 10);
  EXPECT_EQ(Check(stale, 30), MERO_SESSION_AUTHORIZED);
  EXPECT_EQ(Check(fresh, 30), MERO_SESSION_AUTHORIZED);
  EXPECT_GE(LastSeen(stale), now);
  EXPECT_EQ(LastSeen(fresh), now - 10);
  // With a one-minute idle limit the last-seen time is written every 6 s,
  // and a session idles out between 60 and 66 s after its last use.
  const std::string steady = Store(now - 40);
  EXPECT_EQ(Check(steady, 1), MERO_SESSION_AUTHORIZED);
  EXPECT_GE(LastSeen(steady), now);
  EXPECT_EQ(Check(Store(now - 64), 1), MERO_SESSION_AUTHORIZED);
  EXPECT_EQ(Check(Store(now - 68), 1), MERO_SESSION_EXPIRED);
}

// The store expires sessions by the idle limit their checks applied: the
// first check writes it, and a wider one replaces a narrower (0: none).
TEST_F(SessionStoreTest, ChecksRecordTheWidestIdleLimit) {
  const int64_t now = time(nullptr);
  const std::string unseen = Store(now - 10, merocgi::kIdleLimitUnknown);
  const struct {
    int timeoutMinutes;
    int64_t recorded;
  } checks[] = {{30, 30}, {15, 30}, {60, 60}, {0, 0}, {45, 0}};
  for (const auto& c : checks) {
    EXPECT_EQ(Check(unseen, c.timeoutMinutes), MERO_SESSION_AUTHORIZED);
    EXPECT_EQ(Stored(unseen).idleMinutes, c.recorded) << c.timeoutMinutes;
  }
  EXPECT_GE(LastSeen(unseen), now);
}

// Logins one a second and nothing purging: half the sessions idle out after
// the one minute their checks applied, half end with a lifetime of two
// minutes and were never checked. What the store holds must stay near what
// is alive, and nothing alive may go.
TEST_F(SessionStoreTest, UnderSteadyLoginsTheStoreStaysBounded) {
  constexpr int kLogins = 600;
  const int64_t start = time(nullptr) - kLogins;
  merocgi::SessionDb db;
  ASSERT_EQ(db.Open(merocgi::SessionDb::Access::kWriter), merocgi::SessionDb::OpenResult::kOpened);
  for (int i = 0; i < kLogins; ++i) {
    const merocgi::SessionRow row = Row(merocgi::NewSessionId(), "user" + std::to_string(i),
                                        start + i, i % 2 ? 0 : 120, i % 2 ? 1 : merocgi::kIdleLimitUnknown);
    ASSERT_EQ(db.Insert(row, false), 1);
  }
  std::vector<merocgi::SessionRow> rows;
  ASSERT_GE(db.Collect(&rows), 0);
  const int64_t last = start + kLogins - 1;
  int recent = 0;  // created in the last minute: alive whatever their kind
  for (const merocgi::SessionRow& row : rows) recent += last - row.created < 60;
  EXPECT_EQ(recent, 60);
  // About 33 idle-limited and 60 lifetime ones are alive; the expired ones
  // not yet found are about one in MERO_CGI_SESSION_EXPIRY_BATCH.
  EXPECT_LE(rows.size(), 150u);
}

TEST_F(SessionStoreTest, ARecordThatDoesNotDecodeHidesNothingAndIsPurged) {
  const int64_t now = time(nullptr);
  const std::string good = Store(now);
  {
    MDB_env* env = nullptr;
    ASSERT_EQ(mdb_env_create(&env), 0);
    mdb_env_set_mapsize(env, MERO_CGI_SESSION_STORE_BYTES);
    ASSERT_EQ(mdb_env_open(env, merocgi::SessionDb::Path().c_str(), MDB_NOSUBDIR, 0600), 0);
    MDB_txn* txn = nullptr;
    MDB_dbi dbi;
    ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
    ASSERT_EQ(mdb_dbi_open(txn, nullptr, 0, &dbi), 0);
    unsigned char key[32] = {0x42};
    char record[] = "\x03 a record of a later format";
    MDB_val k{sizeof key, key}, v{sizeof record, record};
    ASSERT_EQ(mdb_put(txn, dbi, &k, &v, 0), 0);
    ASSERT_EQ(mdb_txn_commit(txn), 0);
    mdb_env_close(env);
  }
  int seen = 0;
  EXPECT_EQ(MeroCgiSessionList([](const MEROCGI_SESSION_INFO*, void* n) { ++*static_cast<int*>(n); },
                               &seen),
            1);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(Check(good, 30), MERO_SESSION_AUTHORIZED);
  EXPECT_EQ(MeroCgiSessionPurge(0), 1);  // the bad record, not the good session
  EXPECT_EQ(Check(good, 30), MERO_SESSION_AUTHORIZED);
}

// Ids of a session's user: "root" is an account on every system.
TEST_F(SessionStoreTest, IdsAreGivenWithinTheLifetimeWhateverTheIdleTime) {
  const int64_t now = time(nullptr);
  EXPECT_EQ(MeroCgiUIDGet(Store(now - 100, 30, "root", 200).c_str(), "root"), 0);
  EXPECT_EQ(MeroCgiGIDGet(Store(now - 100, 30, "root", 50).c_str(), "root"), -1);
  EXPECT_EQ(MeroCgiUIDGet(Store(now - 864000, 30, "root").c_str(), "root"), 0);
}

TEST_F(SessionStoreTest, ListCallbacksMayRevoke) {
  const int64_t now = time(nullptr);
  Store(now);
  Store(now);
  const int listed = MeroCgiSessionList(
      [](const MEROCGI_SESSION_INFO* info, void*) {
        EXPECT_EQ(MeroCgiSessionRevoke(nullptr, info->ref, nullptr), 1) << info->ref;
      },
      nullptr);
  EXPECT_EQ(listed, 2);
  EXPECT_EQ(MeroCgiSessionList([](const MEROCGI_SESSION_INFO*, void*) {}, nullptr), 0);
}

}  // namespace
