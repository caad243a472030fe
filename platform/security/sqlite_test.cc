#include "platform/security/sqlite.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "platform/files/fixtures_test.h"

namespace pnx {
namespace {

TEST(SQLite, RowsComeBackAsDictionariesOfTypedValues) {
  auto database = SQLiteDatabase::open(":memory:");
  ASSERT_TRUE(database);
  ASSERT_TRUE(database->execute("CREATE TABLE t (i INTEGER, r REAL, s TEXT, b BLOB, n TEXT)"));
  ASSERT_TRUE(
      database->execute("INSERT INTO t VALUES (?, ?, ?, ?, ?)",
                        {Value(-7), Value(1.5), Value("tëxt"), Value(Data{0, 9}), Value()}));
  ASSERT_TRUE(database->execute("INSERT INTO t (b) VALUES (?)", {Value(Data{})}));

  auto rows = database->query("SELECT * FROM t ORDER BY rowid");
  ASSERT_TRUE(rows);
  ASSERT_TRUE(rows->next());
  EXPECT_EQ(rows->resultDictionary(),
            Value::dict({{"i", -7}, {"r", 1.5}, {"s", "tëxt"}, {"b", Data{0, 9}}, {"n", Value()}}));
  EXPECT_TRUE(rows->resultDictionary()["i"].isInteger());
  ASSERT_TRUE(rows->next());
  // An empty blob stays a blob rather than becoming null.
  EXPECT_EQ(rows->valueForColumn("b"), Value(Data{}));
  ErrorPtr error;
  EXPECT_FALSE(rows->next(&error));
  EXPECT_FALSE(error);
}

// Failures name the file; a failed transaction leaves nothing behind.
TEST(SQLite, FailuresAreErrorsAndTransactionsRollBack) {
  testing::TempDir directory;
  std::string garbage = directory.write("garbage.db", std::string(4096, 'x'));
  ErrorPtr error;
  EXPECT_FALSE(SQLiteDatabase::open(garbage, &error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->localizedDescription().find(garbage), std::string::npos);
  EXPECT_FALSE(SQLiteDatabase::isBusy(error));

  auto database = SQLiteDatabase::open(directory.file("good.db"));
  ASSERT_TRUE(database && database->execute("CREATE TABLE t (v INTEGER)"));
  error = nullptr;
  EXPECT_FALSE(database->query("SELECT ?", {Value::array({1})}, &error));
  EXPECT_TRUE(error);
  EXPECT_FALSE(database->transaction([&](ErrorPtr* failure) {
    return database->execute("INSERT INTO t VALUES (1)", {}, failure) &&
           database->execute("INSERT INTO missing VALUES (2)", {}, failure);
  }));
  auto rows = database->query("SELECT count(*) AS n FROM t");
  ASSERT_TRUE(rows && rows->next());
  EXPECT_EQ(rows->valueForColumn("n"), Value(0));
}

TEST(SQLite, AnExceptionInATransactionRollsItBackAndFreesTheLock) {
  testing::TempDir directory;
  auto database = SQLiteDatabase::open(directory.file("t.db"));
  ASSERT_TRUE(database && database->execute("CREATE TABLE t (v INTEGER)"));
  EXPECT_THROW(database->transaction([&](ErrorPtr* failure) -> bool {
    database->execute("INSERT INTO t VALUES (1)", {}, failure);
    throw std::runtime_error("change failed");
  }),
               std::runtime_error);
  auto other = SQLiteDatabase::open(directory.file("t.db"));
  ASSERT_TRUE(other);
  EXPECT_TRUE(other->execute("INSERT INTO t VALUES (2)"));
  auto rows = database->query("SELECT group_concat(v) AS v FROM t");
  ASSERT_TRUE(rows && rows->next());
  EXPECT_EQ(rows->valueForColumn("v"), Value("2"));
}

// The database path must name the file itself: a symbolic link there is refused, with the
// file manager's reason, and a dangling one does not create its target.
TEST(SQLite, OpenRefusesASymbolicLinkAndCreatesPrivateFiles) {
  testing::TempDir directory;
  ASSERT_EQ(symlink(directory.file("target.db").c_str(), directory.file("link.db").c_str()), 0);
  ErrorPtr error;
  EXPECT_FALSE(SQLiteDatabase::open(directory.file("link.db"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), SQLiteErrorDomain);
  EXPECT_NE(error->localizedDescription().find("symbolic link"), std::string::npos)
      << error->localizedDescription();
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(error->underlyingError()->domain(), NSCocoaErrorDomain);
  EXPECT_FALSE(std::filesystem::exists(directory.file("target.db")));

  mode_t previous = umask(0);
  auto database = SQLiteDatabase::open(directory.file("new.db"));
  umask(previous);
  ASSERT_TRUE(database);
  struct stat info {};
  ASSERT_EQ(stat(directory.file("new.db").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

}  // namespace
}  // namespace pnx
