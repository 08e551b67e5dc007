// koAssociativeArray: comparison of keys, the order of enumeration, and the index of large arrays.
#include <strings.h>

#include <chrono>
#include <list>
#include <random>

#include "component_test.h"
#include "ps_heap.h"

namespace {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

int bucketOf(const std::string& key) {
  uint32_t h = 0;
  for (const char c : key) {
    const uint32_t v = (static_cast<uint8_t>(c) | 0x20u) + h;
    h = (v * 1025u) ^ ((v * 1025u) >> 6);
  }
  const uint32_t g = h * 9u;
  return static_cast<int>((g ^ (g >> 11)) & 15u);
}

// The rules, word by word: sixteen lists, every search from the front.
class AssocModel {
 public:
  struct Entry {
    std::string key;
    int value;
  };
  using Bucket = std::list<Entry>;

  bool case_sensitive = false;

  void addReplace(const std::string& key, int value) {
    erase(key);
    bucket(key).push_front({key, value});
  }
  bool erase(const std::string& key) {
    const auto at = find(key, case_sensitive);
    if (at == bucket(key).end()) return false;
    if (at_ == at && at_bucket_ < 16) advance();
    bucket(key).erase(at);
    return true;
  }
  std::string lookup(const std::string& key, bool exact) {
    const auto at = find(key, exact);
    return at != bucket(key).end() ? std::to_string(at->value) : "invalid";
  }
  void clear() {
    for (Bucket& b : buckets_) b.clear();
    at_bucket_ = 16;
  }
  void reset() { enterFrom(0); }
  bool isNext() const { return at_bucket_ < 16; }
  std::string next() {
    if (!isNext()) return "invalid";
    const std::string key = '"' + at_->key + '"';
    advance();
    return key;
  }
  std::string contents() const {
    std::string text;
    for (const Bucket& b : buckets_) {
      for (const Entry& e : b) text += e.key + '=' + std::to_string(e.value) + ' ';
    }
    return text;
  }

 private:
  Bucket& bucket(const std::string& key) { return buckets_[bucketOf(key)]; }
  Bucket::iterator find(const std::string& key, bool exact) {
    return std::find_if(bucket(key).begin(), bucket(key).end(), [&](const Entry& e) {
      return e.key.size() == key.size() &&
             (exact ? e.key == key : !strcasecmp(e.key.c_str(), key.c_str()));
    });
  }
  void enterFrom(int b) {
    while (b < 16 && buckets_[b].empty()) b++;
    at_bucket_ = b;
    if (b < 16) at_ = buckets_[b].begin();
  }
  void advance() {
    if (++at_ == buckets_[at_bucket_].end()) enterFrom(at_bucket_ + 1);
  }

  Bucket buckets_[16];
  int at_bucket_ = 16;
  Bucket::iterator at_;
};

class AssocArray : public testing::Test {
 protected:
  std::string call(const char* name, const std::vector<Arg>& args = {}) {
    return describe(core.call(array.object(), name, args));
  }
  std::string contents() {
    std::string text;
    for (const psAssocEntry* e : pscData<psAssocArray>(array.object())->buckets) {
      for (; e != nullptr; e = e->next)
        text += std::string(e->key) + '=' + describe(e->value) + ' ';
    }
    return text;
  }

  Core core;
  Value array{psNewAssociativeArray(core.domain())};
};

TEST_F(AssocArray, FastLookupLooksInOneBucketWhateverTheCase) {
  call("SetModeCaseSensitive");
  call("AddReplace", {"KEY", 2});
  call("AddReplace", {"key", 3});
  EXPECT_EQ(call("FastLookup", {"KEY", bucketOf("key")}), "3");
  EXPECT_EQ(call("FastLookup", {"KEY", (bucketOf("key") + 1) % 16}), "invalid");
  EXPECT_EQ(call("FastLookup", {"KEY", -1}), "invalid");
  EXPECT_EQ(call("DoesExist", {"KEY"}), "true");
}

// Case is folded for ASCII letters only: these pairs differ in the same bit as "a" and "A" do.
TEST_F(AssocArray, TellsApartWhatIsNoLetter) {
  const std::vector<std::pair<const char*, const char*>> pairs = {{"@", "`"},
                                                                  {"[", "{"},
                                                                  {"\xc0", "\xe0"},
                                                                  {"1", "\x11"},
                                                                  {"abcdefg[", "abcdefg{"},
                                                                  {"abcdefgh@", "abcdefgh`"},
                                                                  {"^bc", "~bc"},
                                                                  {"", "x"}};
  for (const auto& [a, b] : pairs) {
    call("AddReplace", {a, 1});
    call("AddReplace", {b, 2});
    EXPECT_EQ(call("Lookup", {a}), "1") << a;
    EXPECT_EQ(call("Lookup", {b}), "2") << b;
  }
}

TEST_F(AssocArray, ComparesKeysOfAnyLength) {
  std::string key;
  for (int length = 0; length < 40; length++, key += static_cast<char>('A' + length % 26)) {
    call("AddReplace", {key, length});
    std::string lower = key;
    for (char& c : lower) c = static_cast<char>(c | 0x20);
    EXPECT_EQ(call("Lookup", {lower}), std::to_string(length));
    for (size_t i = 0; i < key.size(); i++) {
      std::string other = lower;
      other[i] = '?';
      EXPECT_EQ(call("Lookup", {other}), "invalid") << other;
    }
  }
}

struct AssocUse {
  int keys;        // how many different keys there are
  bool sensitive;  // from the middle on
  bool colliding = false;
};

// The number in brackets and braces, which differ in a bit that the hash folds away.
std::string collidingKey(int number, int bits = 17) {
  std::string key;
  for (int bit = 0; bit < bits; bit++) key += (number >> bit) & 1 ? '[' : '{';
  return key;
}
class AssocBehaviour : public AssocArray, public testing::WithParamInterface<AssocUse> {};

TEST_P(AssocBehaviour, FollowsItsRulesUnderRandomUse) {
  const AssocUse use = GetParam();
  std::mt19937 random(static_cast<unsigned>(use.keys));
  AssocModel model;
  // Keys in several spellings, and keys whose hash is the same although they differ.
  const auto randomKey = [&] {
    const int number = static_cast<int>(random() % static_cast<unsigned>(use.keys));
    std::string key = (random() % 2 ? "key[" : "key{") +
                      (use.colliding ? collidingKey(number) : std::to_string(number));
    for (char& c : key) {
      if (c >= 'a' && c <= 'z' && random() % 4 == 0) c = static_cast<char>(c - 0x20);
    }
    return key;
  };
  for (int step = 0; step < 12'000; step++) {
    if (step == 6'000 && use.sensitive) {
      call("SetModeCaseSensitive");
      model.case_sensitive = true;
    }
    const std::string key = randomKey();
    switch (random() % 12) {
      case 0:
      case 1:
      case 2:
      case 3:
        call("AddReplace", {key, step});
        model.addReplace(key, step);
        break;
      case 4:
      case 5: ASSERT_EQ(call("Delete", {key}), model.erase(key) ? "true" : "false"); break;
      case 6: ASSERT_EQ(call("Lookup", {key}), model.lookup(key, model.case_sensitive)); break;
      case 7: ASSERT_EQ(call("LookupCi", {key}), model.lookup(key, false)); break;
      case 8:
        if (random() % 20 == 0) {
          call("Reset");
          model.reset();
        }
        break;
      case 9:
        if (random() % 2'000 == 0) {
          call("Clear");
          model.clear();
        }
        break;
      default:
        ASSERT_EQ(call("IsNext"), model.isNext() ? "true" : "false");
        ASSERT_EQ(call("Next"), model.next());
    }
    if (step % 16 != 0) continue;
    ASSERT_EQ(contents(), model.contents()) << "step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, AssocBehaviour,
                         testing::Values(AssocUse{4, false}, AssocUse{12, true},
                                         AssocUse{100, false}, AssocUse{400, true},
                                         AssocUse{1000, false, true}, AssocUse{1000, true, true}));

// The index grows while entries come and shrinks its chains while they go.
TEST_F(AssocArray, StaysExactAtManyKeys) {
  const psIfAssociativeArray* methods = clAssociativeArray.if_assoc;
  constexpr int kKeys = 150'000;
  const auto key = [](int i) { return "key" + std::to_string(i); };
  for (int i = 0; i < kKeys; i++) {
    methods->AddReplace(array.object(), key(i), psIntegerValue(i));
  }
  for (int i = 0; i < kKeys; i += 3) ASSERT_TRUE(methods->Delete(array.object(), key(i)));
  for (int i = 0; i < kKeys; i++) {
    const psTypedValue found = methods->Lookup(array.object(), key(i));
    ASSERT_EQ(describe(found), i % 3 == 0 ? "invalid" : std::to_string(i));
  }
  int count = 0;
  for (clAssociativeArray.if_enum->Reset(array.object());
       clAssociativeArray.if_enum->IsNext(array.object()); count++) {
    const Value next(clAssociativeArray.if_enum->Next(array.object()));
  }
  EXPECT_EQ(count, kKeys - kKeys / 3);
  EXPECT_FALSE(pscData<psAssocArray>(array.object())->seeded);
  for (int i = 0; i < kKeys; i++) methods->Delete(array.object(), key(i));
  EXPECT_EQ(call("IsEmpty"), "true");
}

// Keys that somebody has made to collide cost about what others do: growing with their number, not
// with its square. The second round's keys differ in case only.
TEST_F(AssocArray, KeysMadeToCollideCostNoMore) {
  const psIfAssociativeArray* methods = clAssociativeArray.if_assoc;
  constexpr int kKeys = 100'000;
  const auto timed = [&](const auto& make) {
    std::vector<std::string> keys;
    for (int i = 0; i < kKeys; i++) keys.push_back(make(i));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kKeys; i++) {
      methods->AddReplace(array.object(), keys[static_cast<size_t>(i)], psIntegerValue(i));
    }
    for (int i = 0; i < kKeys; i++) {
      EXPECT_EQ(methods->Lookup(array.object(), keys[static_cast<size_t>(i)]).value.i, i);
    }
    for (const std::string& key : keys) EXPECT_TRUE(methods->Delete(array.object(), key));
    return std::chrono::steady_clock::now() - start;
  };
  const auto usual = timed([](int i) { return "key" + std::to_string(i + 1'000'000'000); });
  EXPECT_LT(timed([](int i) { return collidingKey(i); }), usual * 20);
  call("Clear");
  call("SetModeCaseSensitive");
  EXPECT_LT(timed([](int i) {
              std::string key = collidingKey(i);
              for (char& c : key) c = c == '[' ? 'a' : 'A';
              return key;
            }),
            usual * 20);
  EXPECT_EQ(call("IsEmpty"), "true");
}

TEST_F(AssocArray, AppendTakesOverInTheOthersOrder) {
  const Value other(psNewAssociativeArray(core.domain()));
  const psIfAssociativeArray* methods = clAssociativeArray.if_assoc;
  AssocModel source;
  AssocModel target;
  for (int i = 0; i < 100; i++) {
    const std::string key = "k" + std::to_string(i);
    methods->AddReplace(other.object(), key, psIntegerValue(i));
    source.addReplace(key, i);
    if (i % 2 == 0) {
      call("AddReplace", {"K" + std::to_string(i), -i});
      target.addReplace("K" + std::to_string(i), -i);
    }
  }
  methods->Append(array.object(), other.object());
  methods->Append(array.object(), array.object());
  source.reset();
  while (source.isNext()) {
    std::string key = source.next();
    key = key.substr(1, key.size() - 2);
    target.addReplace(key, std::stoi(source.lookup(key, false)));
  }
  EXPECT_EQ(contents(), target.contents());
}

TEST_F(AssocArray, RefusedMemoryDropsTheValue) {
  psHeapSetLimit(psHeapUsed() + 200'000);
  for (int i = 0; i < 20'000; i++) call("AddReplace", {"key" + std::to_string(i), i});
  psHeapSetLimit(size_t{1} << 33);
  EXPECT_EQ(call("Lookup", {"key0"}), "0");
  EXPECT_EQ(call("Lookup", {"key19999"}), "invalid");
  call("AddReplace", {"key19999", 1});
  EXPECT_EQ(call("Lookup", {"KEY19999"}), "1");
}

}  // namespace
