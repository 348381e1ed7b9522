#include "kx/base.h"

#include <gtest/gtest.h>

#include "kx/buffer.h"

namespace {

class CCounted : public kx::CBase {
 public:
  explicit CCounted(int* destroyed) : destroyed_(destroyed) {}
  ~CCounted() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

class IFirst : public virtual kx::IBase {
 public:
  virtual int first() = 0;
};
class ISecond : public virtual kx::IBase {
 public:
  virtual int second() = 0;
};
class CBoth : public kx::CBase, public IFirst, public ISecond {
 public:
  explicit CBoth(int* destroyed) : destroyed_(destroyed) {}
  ~CBoth() override { ++*destroyed_; }
  int first() override { return 1; }
  int second() override { return 2; }

 private:
  int* destroyed_;
};

TEST(RefCountTest, AdoptionTakesOverTheFirstReference) {
  int destroyed = 0;
  {
    auto p = kx::P<CCounted>::adopt(new CCounted(&destroyed));
    EXPECT_EQ(p->getRefCount(), 1);
    kx::P<CCounted> copy = p;
    EXPECT_EQ(p->getRefCount(), 2);
    kx::P<CCounted> moved = std::move(copy);
    EXPECT_FALSE(copy);
    EXPECT_EQ(p->getRefCount(), 2);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountTest, SharingAddsAReference) {
  int destroyed = 0;
  auto owner = kx::create<CCounted>(&destroyed);
  {
    auto shared = kx::P<CCounted>::share(owner.get());
    EXPECT_EQ(owner->getRefCount(), 2);
  }
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(owner->getRefCount(), 1);
  owner = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountTest, InterfacesShareOneCount) {
  int destroyed = 0;
  kx::P<IFirst> first = kx::create<CBoth>(&destroyed);
  kx::P<ISecond> second = kx::dynamicCast<ISecond>(first);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->second(), 2);
  first = nullptr;
  EXPECT_EQ(destroyed, 0);
  second = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountTest, DynamicCastToMissingInterfaceIsNull) {
  int destroyed = 0;
  kx::P<kx::IBase> base = kx::create<CCounted>(&destroyed);
  EXPECT_FALSE(kx::dynamicCast<IFirst>(base));
}

TEST(RefCountTest, SelfAssignmentAndDetach) {
  int destroyed = 0;
  auto p = kx::create<CCounted>(&destroyed);
  auto& alias = p;
  p = alias;
  EXPECT_EQ(p->getRefCount(), 1);
  CCounted* raw = p.detach();
  EXPECT_FALSE(p);
  EXPECT_EQ(destroyed, 0);
  auto back = kx::P<CCounted>::adopt(raw);
  back.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountTest, CopiedValueObjectHasItsOwnCount) {
  auto original = kx::create<kx::TBuffer<unsigned char>>(4);
  auto extra = original;
  auto copy = kx::create<kx::TBuffer<unsigned char>>(*original);
  EXPECT_EQ(original->getRefCount(), 2);
  EXPECT_EQ(copy->getRefCount(), 1);
}

}  // namespace
