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
    static int living;
};
int Counted::living = 0;

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
    EXPECT_EQ(v.LastElement()->value, -1);
    Fill(v, 22);
    EXPECT_EQ(v.Size(), 43);
    EXPECT_EQ(v.Capacity(), 86);
    EXPECT_EQ(Counted::living, 43);
    v.Resize(5);
    EXPECT_EQ(v.Capacity(), 20);
    EXPECT_EQ(Counted::living, 5);
    EXPECT_EQ(v.Get(4)->value, 4);
    v.Resize(30);
    EXPECT_EQ(v.Get(5), nullptr);
    EXPECT_EQ(v.Get(29), nullptr);
    v.Resize(-1);
    EXPECT_EQ(v.Size(), 0);
    EXPECT_EQ(Counted::living, 0);
}

TEST_F(JavaVectorTest, AgreesWithAModel) {
    std::mt19937 random(11);
    JavaVector<Counted> v;
    std::vector<int> model;
    for (int step = 0; step < 5000; ++step) {
        const int index = static_cast<int>(random() % (model.size() + 1));
        switch (random() % 8) {
            case 0:
                v.Resize(index);
                model.resize(static_cast<std::size_t>(index));
                break;
            case 1:
                if (index == v.Size()) break;
                v.SetElementAt(new Counted(step), index);
                model[static_cast<std::size_t>(index)] = step;
                break;
            default:
                v.Insert(index, new Counted(step));
                model.insert(model.begin() + index, step);
                break;
        }
        ASSERT_EQ(v.Size(), static_cast<int>(model.size()));
        ASSERT_EQ(Counted::living, v.Size());
        for (int i = 0; i < v.Size(); ++i) {
            ASSERT_EQ(v.Get(i)->value, model[static_cast<std::size_t>(i)]);
        }
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

TEST_F(JavaVectorTest, HoldsElementsThatCannotBeCopied) {
    JavaVector<DynStr> v;
    v.Add();
    v.LastElement()->Set(std::string(500, 'x').c_str());
    v.Resize(21);
    EXPECT_EQ(v.Get(0)->Length(), 500);
}

TEST_F(JavaVectorTest, StackShowsItsNewest) {
    JavaStack<Counted> stack;
    EXPECT_TRUE(stack.empty());
    EXPECT_EQ(stack.top(), nullptr);
    for (int i = 0; i < 25; ++i) stack.push(Counted(i));
    EXPECT_EQ(stack.top()->value, 24);
    EXPECT_EQ(stack.size(), 25);
}

}  // namespace
