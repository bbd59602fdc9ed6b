// Numbers as text and the other helpers on text are the matter of the fuzz target "numbers".
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "util/dynstr.h"
#include "util/javavector.h"

namespace {

std::string Text(const DynStr& s) {
    return {s.Deref(), static_cast<std::size_t>(s.Length())};
}

// Every operation against std::string, the lengths around the inline limit and the source sometimes
// a part of the string itself.
TEST(DynStrTest, AgreesWithAModel) {
    std::mt19937 random(7);
    const auto below = [&](std::size_t n) { return random() % n; };
    DynStr s;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        const std::string text(below(160), static_cast<char>('a' + step % 26));
        const std::size_t operation = model.size() > 2000 ? 0 : below(6);
        const auto pos = static_cast<int>(below(model.size() + 1));
        const std::string tail = model.substr(static_cast<std::size_t>(pos));
        const auto apply = [&](int status, const std::string& expected) {
            ASSERT_EQ(status, VORDA_OK);
            model = expected;
        };
        if (operation == 0) apply(s.Set(text.c_str()), text);
        if (operation == 1) apply(s.Append(text.c_str()), model + text);
        if (operation == 2) apply(s.Append(s.DerefFrom(pos), s.Length() - pos), model + tail);
        if (operation == 3) apply(s.Set(s.DerefFrom(pos), s.Length() - pos), tail);
        if (operation == 4)
            apply(s.Resize(pos, nullptr), model.substr(0, model.size() - tail.size()));
        if (operation == 5) apply(s.AppendInt(-step), model + std::to_string(-step));
        ASSERT_EQ(Text(s), model) << "operation " << operation;
        ASSERT_EQ(s.Deref()[s.Length()], '\0');
        ASSERT_EQ(s.IsInline(), s.Length() <= 99);
    }
}

TEST(DynStrTest, OddLengthsAreHarmless) {
    DynStr s;
    s.Set("abc");
    EXPECT_EQ(s.Append(nullptr, 5), VORDA_OK);
    EXPECT_EQ(s.Append("x", -1), VORDA_OK);
    EXPECT_EQ(s.Append("de", 0x100000002LL), VORDA_OK);
    EXPECT_EQ(s.Append("x", INT_MAX - 3), VORDA_OUT_OF_MEMORY);
    EXPECT_EQ(s.Resize(INT_MAX, nullptr), VORDA_OUT_OF_MEMORY);
    EXPECT_STREQ(s.Deref(), "abcde");
}

// Counts its living instances, so that a leak or a double deletion shows.
struct Counted {
    explicit Counted(int v = -1) : value(v) { ++living; }
    Counted(const Counted& other) : value(other.value) { ++living; }
    ~Counted() { --living; }
    int value;
    static inline int living = 0;
};

class JavaVectorTest : public testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(Counted::living, 0); }
};

TEST_F(JavaVectorTest, AgreesWithAModel) {
    std::mt19937 random(11);
    JavaVector<Counted> v;
    std::vector<int> model;
    for (int step = 0; step < 5000; ++step) {
        const int index = static_cast<int>(random() % (model.size() + 1));
        const auto operation = random() % 8;
        if (operation == 0) {
            v.Resize(index);
            model.resize(static_cast<std::size_t>(index));
        } else if (operation == 1 && index < v.Size()) {
            v.SetElementAt(new Counted(step), index);
            model[static_cast<std::size_t>(index)] = step;
        } else {
            v.Insert(index, new Counted(step));
            model.insert(model.begin() + index, step);
        }
        ASSERT_EQ(Counted::living, v.Size());
        std::vector<int> values;
        for (int i = 0; i < v.Size(); ++i) values.push_back(v.Get(i)->value);
        ASSERT_EQ(values, model);
    }
}

}  // namespace
