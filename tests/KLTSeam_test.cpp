// KLTSeam: the process-wide default, its replacement, and per-thread bindings that nest and stay on
// their thread, for both kinds of seam (cached per thread or not).
#include <gtest/gtest.h>

#include <thread>

#include "platform/KLTSeam.h"

namespace {

// Each test instantiates its own type: a seam's thread state is kept per type.
template <int N>
struct Thing {
  explicit Thing(int v = 0) : value(v) {}
  int value;
  static inline int made = 0;  // objects the factory made
  static std::shared_ptr<Thing> make() {
    ++made;
    return std::make_shared<Thing>(-1);
  }
};

template <int N>
int valueOn(KLTSeam<Thing<N>>& seam) {
  return seam.current()->value;
}

template <int N>
void exerciseSeam(KLTSeamCache cache) {
  KLTSeam<Thing<N>> seam(&Thing<N>::make, cache);
  EXPECT_EQ(Thing<N>::made, 0);  // nothing is made before the first read
  EXPECT_EQ(valueOn(seam), -1);
  EXPECT_EQ(Thing<N>::made, 1);
  EXPECT_EQ(valueOn(seam), -1);
  EXPECT_EQ(Thing<N>::made, 1);  // made once

  // A replacement is seen by every thread, this one and others.
  auto previous = seam.replaceDefault(std::make_shared<Thing<N>>(5));
  ASSERT_NE(previous, nullptr);
  EXPECT_EQ(previous->value, -1);
  EXPECT_EQ(valueOn(seam), 5);
  int seenElsewhere = 0;
  std::thread([&] { seenElsewhere = valueOn(seam); }).join();
  EXPECT_EQ(seenElsewhere, 5);

  {
    // A binding is in effect on its thread only, nests, and ends innermost first.
    const auto outer = std::make_shared<Thing<N>>(7);
    const auto inner = std::make_shared<Thing<N>>(8);
    typename KLTSeam<Thing<N>>::Binding bindOuter(&outer);
    EXPECT_TRUE(KLTSeam<Thing<N>>::bound());
    EXPECT_EQ(valueOn(seam), 7);
    {
      typename KLTSeam<Thing<N>>::Binding bindInner(&inner);
      EXPECT_EQ(valueOn(seam), 8);
      EXPECT_EQ(seam.processDefault()->value, 5);
    }
    EXPECT_EQ(valueOn(seam), 7);
    bool boundElsewhere = true;
    std::thread([&] {
      seenElsewhere = valueOn(seam);
      boundElsewhere = KLTSeam<Thing<N>>::bound();
    }).join();
    EXPECT_EQ(seenElsewhere, 5);
    EXPECT_FALSE(boundElsewhere);
    // A replacement under a binding changes the default, not the bound object.
    seam.replaceDefault(std::make_shared<Thing<N>>(6));
    EXPECT_EQ(valueOn(seam), 7);
  }
  EXPECT_FALSE(KLTSeam<Thing<N>>::bound());
  EXPECT_EQ(valueOn(seam), 6);

  // nullptr puts the factory's object back, made at the next read.
  seam.replaceDefault(nullptr);
  EXPECT_EQ(Thing<N>::made, 1);
  EXPECT_EQ(valueOn(seam), -1);
  EXPECT_EQ(Thing<N>::made, 2);
}

TEST(KLTSeam, DefaultReplacementAndBindings) {
  exerciseSeam<1>(KLTSeamCache::None);
  exerciseSeam<2>(KLTSeamCache::PerThread);
}

}  // namespace
