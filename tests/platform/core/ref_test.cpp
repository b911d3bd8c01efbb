#include "platform/core/byte_array.h"
#include "platform/core/ref.h"
#include "platform/core/string.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

class Tracked : public Object {
public:
    explicit Tracked(int* destroyed) : destroyed_(destroyed) {}
    ~Tracked() override { ++*destroyed_; }

private:
    int* destroyed_;
};

class Interface : public virtual RefCount {
public:
    virtual int value() const = 0;
};

class Implementation : public Object, public virtual Interface {
public:
    int value() const override { return 7; }
};

TEST(Ref, ReleasesWithTheLastReference)
{
    int destroyed = 0;
    {
        Ref<Tracked> first = makeRef<Tracked>(&destroyed);
        Ref<Tracked> second = first;
        EXPECT_EQ(first->useCount(), 2u);
        first.reset();
        EXPECT_EQ(destroyed, 0);
        Ref<Tracked> moved = std::move(second);
        EXPECT_FALSE(second);
        EXPECT_EQ(moved->useCount(), 1u);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Ref, InterfaceAndObjectShareOneCountAndCastBothWays)
{
    Ref<Interface> asInterface = makeRef<Implementation>();
    Ref<RefCount> asAnything = asInterface;
    EXPECT_EQ(asInterface->useCount(), 2u);

    EXPECT_EQ(refCast<Interface>(asAnything)->value(), 7);
    EXPECT_TRUE(refCast<Object>(asAnything));
    EXPECT_FALSE(refCast<String>(asAnything));
    EXPECT_FALSE(refCast<ByteArray>(Ref<RefCount>()));
}

} // namespace
} // namespace Platform
