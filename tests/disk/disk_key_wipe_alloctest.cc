// An encrypted disk's whole life after creation (opening with the password,
// writes and reads in plain and compressed layouts, a child reading through
// its encrypted parent, the end) leaves neither the password-derived key nor
// the grain key in freed memory.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "brix/cipher.h"
#include "brix/digest.h"
#include "kx/memory_file_system.h"
#include "support/alloc_shim.h"
#include "tests/support/grain_data.h"
#include "zarn/disk.h"

namespace {

kx::TCryptBuffer<unsigned char> g_keys[2];  // derived key, grain key
int g_sightings = 0;

void scanFreedBlock(const unsigned char* block, size_t size) {
  for (const auto& key : g_keys) {
    if (memmem(block, size, key.getData(), key.getUsed())) ++g_sightings;
  }
}

TEST(DiskKeyWipeTest, NoKeyOfAnEncryptedDiskInFreedMemory) {
  for (bool compressed : {false, true}) {
    auto fs = kx::create<kx::CMemoryFileSystem>();
    const kx::CURI base(kx::String("file:///base.vmdk")), child(kx::String("file:///child.vmdk"));
    uint32_t cid;
    {
      auto disk = zarn::CVMDKDisk::create(fs.get(), base, 1, "pw", compressed, -1, -1, "", 0xFFFFFFFF, false);
      cid = disk->getDescriptor()->getContentID();
      auto descriptor = disk->getDescriptor();
      zarn::CVMDKDisk::deriveEncryptKey(g_keys[0], 32, "pw", descriptor->getKxEncryptionKeyDerivationAlgorithm(),
                                        descriptor->getKxEncryptionKeyDerivationSalt());
      const kx::TBuffer<unsigned char> encrypted = descriptor->getKxEncryptedEncryptionKey();
      brix::CCipher_AES256CBC().decrypt(g_keys[0], encrypted.getData(), static_cast<int>(encrypted.getUsed()),
                                        g_keys[1], false, descriptor->getKxEncryptionIV().getData());
      auto digest = kx::create<brix::CDigestType_SHA256>()->createDigest();
      digest->update(g_keys[1].getData(), static_cast<int>(g_keys[1].getUsed()));
      digest->finish();
      ASSERT_EQ(0, std::memcmp(digest->getData(), descriptor->getKxEncryptionKeyHash().getData(), 32));
    }
    g_sightings = 0;
    const auto data = test::mixedData(1 << 20);
    test::setFreeObserver(scanFreedBlock);
    {
      auto disk = kx::create<zarn::CVMDKDisk>(fs.get(), base, kx::IIOStream::ACCESS_READ_WRITE, "pw");
      disk->write(data.data(), static_cast<int>(data.size()));
      cid = disk->getDescriptor()->getContentID();
    }
    test::setFreeObserver(nullptr);
    zarn::CVMDKDisk::create(fs.get(), child, 1, "pw", compressed, -1, -1, "base.vmdk", cid, false);
    test::setFreeObserver(scanFreedBlock);
    {
      auto reader = kx::create<zarn::CVMDKDisk>(fs.get(), child, kx::IIOStream::ACCESS_READ, "pw");
      std::vector<unsigned char> out(data.size());
      reader->read(out.data(), static_cast<int>(out.size()));
      EXPECT_EQ(out, data);
    }
    test::setFreeObserver(nullptr);
    EXPECT_EQ(g_sightings, 0) << compressed;
  }
  g_keys[0] = kx::TCryptBuffer<unsigned char>();
  g_keys[1] = kx::TCryptBuffer<unsigned char>();
}

}  // namespace
