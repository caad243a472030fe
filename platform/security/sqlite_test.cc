#include "platform/security/sqlite.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/files/fixtures_test.h"

namespace pnx {
namespace {

// Failures name the file; a transaction that throws leaves nothing behind and frees the
// write lock.
TEST(SQLite, RowsComeBackAsTypedValuesFailuresAreErrorsAndTransactionsRollBack) {
  auto database = SQLiteDatabase::open(":memory:");
  ASSERT_TRUE(database);
  ASSERT_TRUE(database->execute("CREATE TABLE t (i INTEGER, r REAL, s TEXT, b BLOB, n TEXT)"));
  ASSERT_TRUE(
      database->execute("INSERT INTO t VALUES (?, ?, ?, ?, ?)",
                        {Value(-7), Value(1.5), Value("tëxt"), Value(Data{0, 9}), Value()}));
  ASSERT_TRUE(database->execute("INSERT INTO t (b) VALUES (?)", {Value(Data{})}));

  auto rows = database->query("SELECT * FROM t ORDER BY rowid");
  ASSERT_TRUE(rows && rows->next());
  EXPECT_EQ(rows->resultDictionary(),
            Value::dict({{"i", -7}, {"r", 1.5}, {"s", "tëxt"}, {"b", Data{0, 9}}, {"n", Value()}}));
  EXPECT_TRUE(rows->resultDictionary()["i"].isInteger());
  ASSERT_TRUE(rows->next());
  // An empty blob stays a blob rather than becoming null.
  EXPECT_EQ(rows->valueForColumn("b"), Value(Data{}));
  ErrorPtr error;
  EXPECT_FALSE(rows->next(&error));
  EXPECT_FALSE(error);

  testing::TempDir directory;
  std::string garbage = directory.write("garbage.db", std::string(4096, 'x'));
  EXPECT_FALSE(SQLiteDatabase::open(garbage, &error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->localizedDescription().find(garbage), std::string::npos);
  EXPECT_FALSE(SQLiteDatabase::isBusy(error));

  rows.reset();  // before its connection goes
  database = SQLiteDatabase::open(directory.file("good.db"));
  ASSERT_TRUE(database && database->execute("CREATE TABLE t (v INTEGER)"));
  error = nullptr;
  EXPECT_FALSE(database->query("SELECT ?", {Value::array({1})}, &error));
  EXPECT_TRUE(error);
  EXPECT_THROW(database->transaction([&](ErrorPtr* failure) -> bool {
    database->execute("INSERT INTO t VALUES (3)", {}, failure);
    throw std::runtime_error("change failed");
  }),
               std::runtime_error);
  auto other = SQLiteDatabase::open(directory.file("good.db"));
  ASSERT_TRUE(other && other->execute("INSERT INTO t VALUES (4)"));
  rows = database->query("SELECT group_concat(v) AS v FROM t");
  ASSERT_TRUE(rows && rows->next());
  EXPECT_EQ(rows->valueForColumn("v"), Value("4"));
}

}  // namespace
}  // namespace pnx
