#include "zarn/file_reference.h"

#include <gtest/gtest.h>

#include "kx/error.h"

namespace {

TEST(FileReferenceTest, ReferencesFromAnySystemResolve) {
  const kx::CURI base(kx::String("file:///d/vms/"));
  const struct {
    const char* reference;
    const char* uri;
  } cases[] = {
      {"disk-s00000.vmdk", "file:///d/vms/disk-s00000.vmdk"},
      {"..\\base\\base.vmdk", "file:///d/base/base.vmdk"},
      {"../base/base.vmdk", "file:///d/base/base.vmdk"},
      {"sub\\x/y.vmdk", "file:///d/vms/sub/x/y.vmdk"},  // a backslash makes it all Windows
      {"C:\\vms\\base.vmdk", "file:///C:/vms/base.vmdk"},
      {"C:/vms/base.vmdk", "file:///C:/vms/base.vmdk"},
      {"/vms/base.vmdk", "file:///vms/base.vmdk"},
      {"file:///d/base.vmdk", "file:///d/base.vmdk"},
      {"a:b.vmdk", "a:b.vmdk"},
      {"c:", "c:"},
      {"vms/a:b.vmdk", "file:///d/vms/vms/a:b.vmdk"},
      {":b.vmdk", "file:///d/vms/:b.vmdk"},
      {"\\\\server\\share\\base.vmdk", "file://server/share/base.vmdk"},
      {"my disk 100%.vmdk", "file:///d/vms/my%20disk%20100%25.vmdk"},
      {"d\xC3\xBC\xC3\x9F.vmdk", "file:///d/vms/d%C3%BC%C3%9F.vmdk"},
      {"../../../../x.vmdk", "file:///x.vmdk"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(zarn::vmdkFileReferenceToURI(base, kx::String::FromUTF8(c.reference)).toString(), c.uri)
        << c.reference;
  }
  EXPECT_THROW(zarn::vmdkFileReferenceToURI(base, "C:\\..\\x.vmdk"), kx::CBadPathError);
}

}  // namespace
