#include "util/javavector.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "util/dynstr.h"

namespace {

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
    static void Fill(JavaVector<Counted>& vector, int count) {
        for (int i = 0; i < count; ++i) vector.Add(Counted(i));
    }
};

TEST_F(JavaVectorTest, StorageFollowsTheCount) {
    JavaVector<Counted> v;
    Fill(v, 20);
    EXPECT_EQ(v.Capacity(), 20);
    v.Add();
    EXPECT_EQ(v.Capacity(), 42);
    v.Resize(5);
    EXPECT_EQ(v.Capacity(), 20);
    v.Resize(30);
    EXPECT_EQ(v.Get(5), nullptr);
    EXPECT_EQ(v.Get(29), nullptr);
    v.Resize(-1);
    EXPECT_EQ(v.Size(), 0);

    JavaVector<DynStr> cannotBeCopied;
    cannotBeCopied.Add();
    cannotBeCopied.LastElement()->Set(std::string(500, 'x').c_str());
    cannotBeCopied.Resize(21);
    EXPECT_EQ(cannotBeCopied.Get(0)->Length(), 500);
}

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

TEST_F(JavaVectorTest, OutOfBoundsIsHarmless) {
    JavaVector<Counted> v;
    EXPECT_EQ(v.LastElement(), nullptr);
    Fill(v, 3);
    EXPECT_EQ(v.Get(-1), nullptr);
    EXPECT_EQ(v.ElementAt(3), nullptr);
    v.SetElementAt(new Counted(9), 3);
    v.SetElementAt(v.Get(1), 1);
    EXPECT_EQ(v.Get(1)->value, 1);
    v.Insert(99, new Counted(7));
    EXPECT_EQ(v.LastElement()->value, 7);
    EXPECT_THROW(v.Resize(1 << 30), std::bad_array_new_length);
    EXPECT_EQ(v.Size(), 4);
}

TEST_F(JavaVectorTest, StackShowsItsNewest) {
    JavaStack<Counted> stack;
    EXPECT_TRUE(stack.empty());
    EXPECT_EQ(stack.top(), nullptr);
    stack.push(Counted(1));
    stack.push(Counted(2));
    EXPECT_EQ(stack.top()->value, 2);
    EXPECT_EQ(stack.size(), 2);
}

}  // namespace
