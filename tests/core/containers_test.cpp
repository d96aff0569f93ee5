#include <gtest/gtest.h>

#include <string>

#include "core/map.h"
#include "core/queue.h"
#include "base/stringutil.h"

using namespace korvo;

namespace {

TEST(HashTable, IntegerKeysIterateInBucketThenInsertionOrder) {
  HashTable<unsigned, int> map(1024);
  map.mapSet(1029, 2);
  map.mapSet(7, 3);
  map.mapSet(5, 1);
  map.mapSet(2000, 4);
  EXPECT_EQ(map.bucketOf(5), map.bucketOf(1029));
  // 1029 came first, so it stays ahead of 5 in their shared bucket.
  EXPECT_EQ(map.keys(), (std::vector<unsigned>{1029, 5, 7, 2000}));
  EXPECT_EQ(*map.mapGet1(5), 1);
  EXPECT_EQ(map.mapGet1(6), nullptr);

  int removed = 0;
  EXPECT_TRUE(map.mapRemove(1029, &removed));
  EXPECT_EQ(removed, 2);
  EXPECT_FALSE(map.mapRemove(1029));
  EXPECT_EQ(map.mapSize(), 3);
  EXPECT_EQ(map.keys(), (std::vector<unsigned>{5, 7, 2000}));
}

TEST(HashTable, ReplacingKeepsSizeAndPositionAndFreesOnce) {
  int keyFrees = 0, valueFrees = 0;
  HashTable<std::string, std::string> map(
      16, [&](std::string&) { ++keyFrees; }, [&](std::string&) { ++valueFrees; });
  map.mapSet("a", "1");
  map.mapSet("q", "2");
  map.mapSet("a", "3");
  EXPECT_EQ(map.mapSize(), 2);
  EXPECT_EQ(keyFrees, 1);
  EXPECT_EQ(valueFrees, 1);
  EXPECT_EQ(*map.mapGet1("a"), "3");
  EXPECT_EQ(strHash("ab"), 97u * 31u + 98u);
  EXPECT_EQ(map.bucketOf("ab"), static_cast<int>((97u * 31u + 98u) % 16u));
}

TEST(Queue, OneSlotStaysEmpty) {
  Queue<int> q(3);
  EXPECT_EQ(q.queuePut__(1), 1);
  EXPECT_EQ(q.queuePut__(2), 1);
  EXPECT_EQ(q.queuePut__(3), 1);
  EXPECT_EQ(q.queuePut__(4), 0);
  int v = 0;
  for (int expect = 1; expect <= 3; ++expect) {
    ASSERT_EQ(q.queueGet__(v), 1);
    EXPECT_EQ(v, expect);
  }
  EXPECT_EQ(q.queueGet__(v), 0);
  // Wrapping around keeps order and capacity.
  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(q.queuePut__(round), 1);
    EXPECT_EQ(q.queueGet__(v), 1);
    EXPECT_EQ(v, round);
  }
  EXPECT_TRUE(q.empty());
}

TEST(StringUtil, SplitCountsDelimiterRuns) {
  std::vector<std::string_view> parts;
  EXPECT_EQ(split("a,,b,", ",", parts, 10), 2);
  EXPECT_EQ(parts, (std::vector<std::string_view>{"a", "b", ""}));
  EXPECT_EQ(split("x y;z", " ;", parts, 2), 2);
  EXPECT_EQ(parts.size(), 2u);
  EXPECT_EQ(split("", ",", parts, 4), 0);
  EXPECT_EQ(parts, (std::vector<std::string_view>{""}));
}

TEST(StringUtil, DecodingAndReplacing) {
  EXPECT_EQ(urlDecode("a+b%41%G1"), "a bA%G1");
  EXPECT_EQ(urlDecode("%4"), "%4");
  EXPECT_EQ(urlDecode("100%"), "100%");
  EXPECT_EQ(*str_replace("aaa", "aa", "b"), "ba");
  EXPECT_EQ(*str_replace("x.ogg", ".ogg", ""), "x");
  EXPECT_FALSE(str_replace("abc", "", "x").has_value());
  EXPECT_EQ(readInt("0X1f"), 31);
  EXPECT_EQ(readInt("42abc"), 42);
  EXPECT_EQ(readInt(""), 0);
  EXPECT_EQ(readInt("zz"), 0);
  EXPECT_EQ(hexToInt('F'), 15);
  EXPECT_EQ(hexToInt('g'), 0);
}

TEST(StringUtil, AffixesBasenameAndTrim) {
  EXPECT_TRUE(startsWith("Music/01.ogg", "music"));
  EXPECT_FALSE(startsWithMatchCase("Music", "music"));
  EXPECT_TRUE(endsWith("A.OGG", ".ogg"));
  EXPECT_FALSE(endsWith("g", ".ogg"));
  EXPECT_EQ(_strnicmp("ABC", "abd", 2), 0);
  EXPECT_LT(_strnicmp("ABC", "abd", 3), 0);
  EXPECT_EQ(_strnicmp("a", "b", 0), 0);
  EXPECT_EQ(_basename("a/b/"), "b/");
  EXPECT_EQ(_basename("a/b/c.ogg"), "c.ogg");
  EXPECT_EQ(_basename("plain"), "plain");
  std::string s = "line \r\n";
  trim_right(s);
  EXPECT_EQ(s, "line");
  EXPECT_FALSE(save_strdup(nullptr).has_value());
  EXPECT_TRUE(isEmptyString(static_cast<const char*>(nullptr)));
}

}  // namespace
