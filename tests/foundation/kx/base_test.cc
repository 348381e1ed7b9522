#include "kx/base.h"

#include <gtest/gtest.h>

#include "kx/buffer.h"

namespace {

class IFirst : public virtual kx::IBase {};
class ISecond : public virtual kx::IBase {
 public:
  virtual int second() = 0;
};
class CBoth : public kx::CBase, public IFirst, public ISecond {
 public:
  explicit CBoth(int* destroyed) : destroyed_(destroyed) {}
  ~CBoth() override { ++*destroyed_; }
  int second() override { return 2; }

 private:
  int* destroyed_;
};

TEST(RefCountTest, AdoptShareCopyMoveAndDetach) {
  int destroyed = 0;
  {
    auto p = kx::P<CBoth>::adopt(new CBoth(&destroyed));
    EXPECT_EQ(p->getRefCount(), 1);
    kx::P<CBoth> copy = p;
    EXPECT_EQ(p->getRefCount(), 2);
    kx::P<CBoth> moved = std::move(copy);
    EXPECT_FALSE(copy);
    EXPECT_EQ(p->getRefCount(), 2);
    EXPECT_EQ(kx::P<CBoth>::share(p.get())->getRefCount(), 3);
    EXPECT_EQ(p->getRefCount(), 2);
    moved = nullptr;
    auto& alias = p;
    p = alias;
    EXPECT_EQ(p->getRefCount(), 1);

    CBoth* raw = p.detach();
    EXPECT_FALSE(p);
    EXPECT_EQ(destroyed, 0);
    p = kx::P<CBoth>::adopt(raw);
    EXPECT_EQ(p->getRefCount(), 1);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountTest, InterfacesShareOneCountAndCopiesStartTheirOwn) {
  int destroyed = 0;
  kx::P<IFirst> first = kx::create<CBoth>(&destroyed);
  kx::P<ISecond> second = kx::dynamicCast<ISecond>(first);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->second(), 2);
  first = nullptr;
  EXPECT_EQ(destroyed, 0);
  second = nullptr;
  EXPECT_EQ(destroyed, 1);

  EXPECT_FALSE(kx::dynamicCast<IFirst>(kx::create<kx::TBuffer<unsigned char>>(4)));
  auto original = kx::create<CBoth>(&destroyed);
  auto extra = original;
  auto copy = kx::create<CBoth>(*original);
  EXPECT_EQ(original->getRefCount(), 2);
  EXPECT_EQ(copy->getRefCount(), 1);
}

}  // namespace
