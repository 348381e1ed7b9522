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

TEST(RefCountTest, PointersShareOneCountAcrossInterfacesAndCopiesStartTheirOwn) {
  int destroyed = 0;
  {
    auto p = kx::P<CBoth>::adopt(new CBoth(&destroyed));
    kx::P<CBoth> copy = p;
    kx::P<CBoth> moved = std::move(copy);
    EXPECT_FALSE(copy);
    EXPECT_EQ(kx::P<CBoth>::share(p.get())->getRefCount(), 3);
    moved = nullptr;
    auto& alias = p;
    p = alias;
    EXPECT_EQ(p->getRefCount(), 1);
    p = kx::P<CBoth>::adopt(p.detach());
    EXPECT_EQ(p->getRefCount(), 1);

    kx::P<ISecond> second = kx::dynamicCast<ISecond>(kx::P<IFirst>(p));
    ASSERT_TRUE(second);
    EXPECT_EQ(second->second(), 2);
    EXPECT_EQ(p->getRefCount(), 2);
    EXPECT_FALSE(kx::dynamicCast<IFirst>(kx::create<kx::TBuffer<unsigned char>>(4)));
    auto copied = kx::create<CBoth>(*p);
    EXPECT_EQ(copied->getRefCount(), 1);
    EXPECT_EQ(p->getRefCount(), 2);
  }
  EXPECT_EQ(destroyed, 2);
}

}  // namespace
