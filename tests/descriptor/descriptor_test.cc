#include "zarn/descriptor.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "kx/parse.h"
#include "tests/support/log_capture.h"

namespace {

using zarn::CVMDKDescriptor;
using zarn::CVMDKExtentInfo;

std::string readTestFile(const std::string& name) {
  std::ifstream in(std::string(ZARN_TESTDATA_DIR) + "/descriptors/" + name, std::ios::binary);
  EXPECT_TRUE(in.good()) << name;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

kx::P<CVMDKDescriptor> parse(const std::string& bytes) {
  kx::TBuffer<unsigned char> buffer;
  buffer.assign(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  return kx::create<CVMDKDescriptor>(buffer);
}

std::string text(const CVMDKDescriptor& descriptor) { return descriptor.toString().toUTF8(); }

// One letter per entry: G generic, N name/value, E extent.
std::string kinds(const CVMDKDescriptor& descriptor) {
  std::string result;
  for (const auto& entry : descriptor.getEntries()) {
    if (dynamic_cast<CVMDKExtentInfo*>(entry.get())) {
      result += 'E';
    } else if (dynamic_cast<CVMDKDescriptor::CNameValueEntry*>(entry.get())) {
      result += 'N';
    } else {
      result += 'G';
    }
  }
  return result;
}

std::string bytesOf(const kx::CBufferStream& stream) {
  const auto& buffer = stream.getBuffer();
  return std::string(reinterpret_cast<const char*>(buffer->getData()), buffer->getUsed());
}

std::string store(CVMDKDescriptor& descriptor, int size, const kx::TBuffer<unsigned char>& pad) {
  kx::CBufferStream stream;
  descriptor.store(stream, size, pad);
  return bytesOf(stream);
}

std::string messageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const kx::CError& e) {
    EXPECT_EQ(e.getCode(), -1);
    return e.getMessage().toUTF8();
  }
  return "(nothing raised)";
}

TEST(DescriptorTest, LoadChangeStoreGivesExactBytes) {
  struct Case {
    const char* input;
    std::function<void(CVMDKDescriptor&)> change;
    const char* expected;
    size_t warnings;
  } cases[] = {
      {"monolithic_sparse_embedded.txt",
       [](CVMDKDescriptor& d) {
         d.setContentID(0x1a2b3c4d);
         d.setAdapterType("lsilogic");
       },
       "monolithic_sparse_embedded.expected", 0},
      {"two_gb_max_extent_sparse.vmdk",
       [](CVMDKDescriptor& d) {
         d.setContentID(0x0badcafe);
         d.setKxCreateExtentFilesOnDemand(true);
         d.setGeometryCylinders(2610);
         d.addExtentEntry(
             kx::create<CVMDKExtentInfo>("RW", 4096, "SPARSE", "Windows Server-s005.vmdk", -1).get());
       },
       "two_gb_max_extent_sparse.expected", 0},
      {"crlf_windows_1252.vmdk", [](CVMDKDescriptor&) {}, "crlf_windows_1252.expected", 1},
      {"latin1_file_name.vmdk", [](CVMDKDescriptor&) {}, "latin1_file_name.expected", 0},
      {"differencing.vmdk",
       [](CVMDKDescriptor& d) {
         d.setContentID(0xe7f10a22);
         d.setParentContentID(0x5d0c0e11);
         d.setKxEncryptionAlgorithm("AES-256-CBC");
       },
       "differencing.expected", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    test::CLogCapture log;
    kx::P<CVMDKDescriptor> descriptor = parse(readTestFile(c.input));
    EXPECT_EQ(log.count(kx::LogLevel::Warning), c.warnings);
    c.change(*descriptor);
    const std::string expected = readTestFile(c.expected);
    const int padding = 37;
    kx::TBuffer<unsigned char> zeros(512);
    EXPECT_EQ(store(*descriptor, static_cast<int>(expected.size()) + padding, zeros),
              expected + std::string(padding, '\0'));
    // What was stored reads back to the same document.
    EXPECT_EQ(text(*parse(expected)), expected);
  }
}

TEST(DescriptorTest, LoadAndToStringNormaliseLines) {
  struct Case {
    std::string input;
    const char* output;
    const char* kinds;
  } cases[] = {
      {"", "", ""},
      {std::string("\0a=1\n", 5), "", ""},
      {std::string("a=1\0b=2\n", 8), "a=1\n", "N"},
      {"a=1", "a=1\n", "N"},
      {"a=1\n", "a=1\n", "N"},
      {"a=1\n\n", "a=1\n\n", "NG"},
      {"x=\"\nz=\"open\n", "x=\"\"\nz=\"open\n", "NN"},
      {"=5\nmy key=5\n", "=5\nmy key=5\n", "GG"},
      {"#a=b\n #a=b\n", "#a=b\n#a=b\n", "GN"},
      {"a=b=c\n", "a=b=c\n", "N"},
      {"a = b\n\tkey\t=\t\"v w\"\t\n", "a=b\nkey=\"v w\"\n", "NN"},
      {"ddb.x=\"y\"\nddb.n=2\nDDB.x = 1\n", "ddb.x = \"y\"\nddb.n = 2\nDDB.x=1\n", "NNN"},
      {"a=1\r\n# comment\r\n\r\nb=\"2\"\r\n", "a=1\n# comment\r\n\r\nb=\"2\"\n", "NGGN"},
      {"RW 8 SPARSE \"a=b.vmdk\"", "RW 8 SPARSE \"a=b.vmdk\"\n", "E"},
      {"RW  2048   SPARSE   \"a b.vmdk\"   0\n", "RW 2048 SPARSE \"a b.vmdk\" 0\n", "E"},
      {"RW 2048 SPARSE \"a.vmdk\"\r\n", "RW 2048 SPARSE \"a.vmdk\"\n", "E"},
      {"RW 2048 ZERO\nRW 2048 SPARSE a.vmdk\nRW abc SPARSE \"a.vmdk\"\nRW 2048 SPARSE \"a.vmdk\" x\n",
       "RW 2048 ZERO\nRW 2048 SPARSE a.vmdk\nRW abc SPARSE \"a.vmdk\"\nRW 2048 SPARSE \"a.vmdk\" x\n",
       "GGGG"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    test::CLogCapture log;
    kx::P<CVMDKDescriptor> descriptor = parse(c.input);
    EXPECT_EQ(text(*descriptor), c.output);
    EXPECT_EQ(kinds(*descriptor), c.kinds);
    EXPECT_TRUE(log.lines.empty());
  }
}

TEST(DescriptorTest, NamesMatchWithoutCaseAndFirstDuplicateWins) {
  kx::P<CVMDKDescriptor> d = parse("CID=1\ncid=2\nDDB.x=1\n");
  EXPECT_EQ(d->getValue("cid"), "1");
  EXPECT_TRUE(d->hasValue("ddb.X"));
  d->setValue("Cid", "5", false, true);
  EXPECT_EQ(text(*d), "CID=5\ncid=2\nDDB.x=1\n");
  kx::String value = "stale";
  EXPECT_FALSE(d->tryGetValue("missing", value));
  EXPECT_TRUE(value.isEmpty());
  EXPECT_EQ(messageOf([&] { d->getValue("createType"); }), "VMDK descriptor value 'createType' not found.");
}

TEST(DescriptorTest, HeaderInsertIndexKeepsNewHeaderLinesInOrder) {
  // A comment between the header and the extents, and a second run of
  // extents behind the data base.
  kx::P<CVMDKDescriptor> d = parse(
      "# Disk DescriptorFile\nversion=1\nCID=1\n\n# Extent description\n"
      "RW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\n#DDB\nddb.x = \"1\"\nRW 8 SPARSE \"z\"\n");
  EXPECT_EQ(d->getHeaderInsertIndex(), 3);
  d->setValue("new", "1", false, true);
  d->setValue("newer", "2", true, true);
  d->addGenericLine("# note", true);
  d->setValue("tail", "3", false, false);
  d->addGenericLine("# end", false);
  d->addExtentEntry(kx::create<CVMDKExtentInfo>("RW", 8, "SPARSE", "c", -1).get());
  EXPECT_EQ(d->getHeaderInsertIndex(), 6);
  kx::TArray<kx::P<CVMDKExtentInfo>> extents(1);  // getExtentEntries appends
  d->getExtentEntries(extents);
  ASSERT_EQ(extents.size(), 5u);
  EXPECT_EQ(extents[3]->getFilename(), "c");
  EXPECT_EQ(
      text(*d),
      "# Disk DescriptorFile\nversion=1\nCID=1\nnew=1\nnewer=\"2\"\n# note\n\n# Extent description\n"
      "RW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\nRW 8 SPARSE \"c\"\n#DDB\nddb.x = \"1\"\nRW 8 SPARSE \"z\"\n"
      "tail=3\n# end\n");

  // Name/value lines behind the first extent don't count for the header.
  EXPECT_EQ(parse("# c\nRW 8 SPARSE \"a\"\nx=1\n")->getHeaderInsertIndex(), 0);
  EXPECT_EQ(parse("# only comments\n\n")->getHeaderInsertIndex(), 0);
  EXPECT_EQ(parse("a=1\n# c\nb=2\n# d\n")->getHeaderInsertIndex(), 3);

  // Built from nothing, the way a new disk's descriptor is.
  CVMDKDescriptor fresh;
  fresh.addGenericLine("# Disk DescriptorFile", true);
  fresh.setVersion(1);
  fresh.setEncodingUTF8();
  fresh.setContentID(0xabcd);
  fresh.setParentContentID(0xffffffff);
  fresh.setCreateType("monolithicSparse");
  fresh.addGenericLine("", true);
  fresh.addGenericLine("# Extent description", false);
  fresh.addExtentEntry(kx::create<CVMDKExtentInfo>("RW", 128, "SPARSE", "new.vmdk", -1).get());
  fresh.addGenericLine("", false);
  fresh.addGenericLine("#DDB", false);
  fresh.setAdapterType("lsilogic");
  fresh.setGeometrySectors(63);
  EXPECT_EQ(text(fresh),
            "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=abcd\nparentCID=ffffffff\n"
            "createType=\"monolithicSparse\"\n\n# Extent description\nRW 128 SPARSE \"new.vmdk\"\n\n#DDB\n"
            "ddb.adapterType = \"lsilogic\"\nddb.geometry.sectors = \"63\"\n");
}

TEST(DescriptorTest, TypedAccessorsWriteTheirKeys) {
  // A new key goes behind "foo" (header) or to the end ("ddb." keys); an
  // existing one keeps its place and its quotes, whatever they were.
  const std::string base = "# Disk DescriptorFile\nfoo=1\n\n# Extent description\nRW 8 SPARSE \"a.vmdk\"\n";
  kx::TBuffer<unsigned char> bytes;
  bytes.assign(reinterpret_cast<const unsigned char*>("\x00\xab\x10\xff"), 4);
  using D = CVMDKDescriptor;
  auto dec = [](int64_t v) { return kx::String(std::to_string(v)); };
  auto hex = [](uint32_t v) { return kx::String::Format("%x", v); };
  struct Case {
    std::function<void(D&)> set;
    std::function<kx::String(const D&)> get;
    const char* line;
    const char* whenMissing;  // null: the getter raises the not-found error
  } cases[] = {
      {[](D& d) { d.setVersion(-3); }, [&](const D& d) { return dec(d.getVersion()); }, "version=-3",
       nullptr},
      {[](D& d) { d.setContentID(0xABCD); }, [&](const D& d) { return hex(d.getContentID()); }, "CID=abcd",
       nullptr},
      {[](D& d) { d.setParentContentID(7); }, [&](const D& d) { return hex(d.getParentContentID()); },
       "parentCID=7", "ffffffff"},
      {[](D& d) { d.setCreateType("streamOptimized"); }, [](const D& d) { return d.getCreateType(); },
       "createType=\"streamOptimized\"", nullptr},
      {[](D& d) { d.setParentFileNameHint("../p.vmdk"); },
       [](const D& d) { return d.getParentFileNameHint(); }, "parentFileNameHint=\"../p.vmdk\"", nullptr},
      {[](D& d) { d.setAdapterType("ide"); }, [](const D& d) { return d.getAdapterType(); },
       "ddb.adapterType = \"ide\"", nullptr},
      {[](D& d) { d.setGeometryCylinders(16383); }, [&](const D& d) { return dec(d.getGeometryCylinders()); },
       "ddb.geometry.cylinders = \"16383\"", nullptr},
      {[](D& d) { d.setGeometryHeads(255); }, [&](const D& d) { return dec(d.getGeometryHeads()); },
       "ddb.geometry.heads = \"255\"", nullptr},
      {[](D& d) { d.setGeometrySectors(63); }, [&](const D& d) { return dec(d.getGeometrySectors()); },
       "ddb.geometry.sectors = \"63\"", nullptr},
      {[](D& d) { d.setKxCreateExtentFilesOnDemand(true); },
       [](const D& d) { return kx::String(d.getKxCreateExtentFilesOnDemand() ? "true" : "false"); },
       "kxCreateExtentFilesOnDemand=\"true\"", "false"},
      {[](D& d) { d.setKxEncryptionAlgorithm("AES-256-CBC"); },
       [](const D& d) { return d.getKxEncryptionAlgorithm(); }, "kxEncAlg=AES-256-CBC", ""},
      {[&](D& d) { d.setKxEncryptionIV(bytes); },
       [](const D& d) { return kx::hexEncode(d.getKxEncryptionIV()); }, "kxEncIV=00ab10ff", nullptr},
      {[](D& d) { d.setKxEncryptionKeyDerivationAlgorithm("PBKDF2"); },
       [](const D& d) { return d.getKxEncryptionKeyDerivationAlgorithm(); }, "kxEncKeyDerivAlg=PBKDF2",
       nullptr},
      {[&](D& d) { d.setKxEncryptionKeyDerivationSalt(bytes); },
       [](const D& d) { return kx::hexEncode(d.getKxEncryptionKeyDerivationSalt()); },
       "kxEncKeyDerivSalt=00ab10ff", nullptr},
      {[&](D& d) { d.setKxEncryptedEncryptionKey(bytes); },
       [](const D& d) { return kx::hexEncode(d.getKxEncryptedEncryptionKey()); }, "kxEncEncKey=00ab10ff",
       nullptr},
      {[](D& d) { d.setKxEncryptionKeyHashAlgorithm("SHA-256"); },
       [](const D& d) { return d.getKxEncryptionKeyHashAlgorithm(); }, "kxEncKeyHashAlg=SHA-256", nullptr},
      {[&](D& d) { d.setKxEncryptionKeyHash(bytes); },
       [](const D& d) { return kx::hexEncode(d.getKxEncryptionKeyHash()); }, "kxEncKeyHash=00ab10ff",
       nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const std::string line = c.line;
    const bool ddb = line.compare(0, 4, "ddb.") == 0;
    const size_t equals = line.find(ddb ? " = " : "=");
    const std::string key = line.substr(0, equals);
    const bool quoted = line.back() == '"';
    std::string value = line.substr(equals + (ddb ? 3 : 1));
    if (quoted) value = value.substr(1, value.size() - 2);

    kx::P<D> d = parse(base);
    if (c.whenMissing) {
      EXPECT_EQ(c.get(*d), c.whenMissing);
    } else {
      EXPECT_EQ(messageOf([&] { c.get(*d); }), "VMDK descriptor value '" + key + "' not found.");
    }
    c.set(*d);
    ASSERT_EQ(d->getEntries().size(), 6u);
    EXPECT_EQ(d->getEntries()[ddb ? 5 : 2]->toString(), c.line);
    EXPECT_EQ(c.get(*d), value);

    kx::P<D> existing = parse("# x\n" + key + (quoted ? "=0" : "=\"0\"") + "\nRW 8 SPARSE \"a.vmdk\"\n");
    c.set(*existing);
    EXPECT_EQ(existing->getEntries()[1]->toString(),
              key + (ddb ? " = " : "=") + (quoted ? value : "\"" + value + "\""));
  }
}

TEST(DescriptorTest, BadTypedValuesFailOnlyInTheirGetter) {
  kx::P<CVMDKDescriptor> d = parse("version=one\nCID=0x1a\nparentCID=0x1a\nkxEncIV=abc\n");
  EXPECT_THROW(d->getVersion(), kx::CError);
  EXPECT_THROW(d->getContentID(), kx::CError);
  EXPECT_EQ(d->getParentContentID(), 0x1au);
  EXPECT_THROW(d->getKxEncryptionIV(), kx::CError);
  EXPECT_EQ(parse("CID=1ffffffff\n")->getContentID(), 0xffffffffu);
}

TEST(DescriptorTest, CopiesShareNoLines) {
  kx::P<CVMDKDescriptor> source = parse(readTestFile("two_gb_max_extent_sparse.vmdk"));
  const std::string before = text(*source);
  CVMDKDescriptor target;
  target.setValue("old", "1", false, true);
  target = *source;
  EXPECT_EQ(text(target), before);
  EXPECT_EQ(target.getHeaderInsertIndex(), source->getHeaderInsertIndex());
  target.setContentID(0x99);
  target.setValue("added", "1", false, true);
  CVMDKDescriptor copy(target);
  copy.setCreateType("other");
  EXPECT_EQ(text(*source), before);
  EXPECT_EQ(target.getCreateType(), "twoGbMaxExtentSparse");
}

TEST(DescriptorTest, DecodingFollowsTheDeclaredEncoding) {
  struct Case {
    std::string input;
    const wchar_t* name;
    const char* warning;  // null: none
  } cases[] = {
      {"n=\"\xc3\xa9\"\n", L"\u00e9", nullptr},
      {"encoding=\"utf_8\"\nn=\"\xc3\xa9\"\n", L"\u00e9", nullptr},
      {"ENCODING=\"Latin-1\"\nn=\"\xe9\"\n", L"\u00e9", nullptr},
      {"encoding=\"iso_8859-1\"\nn=\"\xc3\xa9\"\n", L"\u00c3\u00a9", nullptr},
      {"encoding=\"windows-1252\"\nn=\"\xe9\"\n", L"\u00e9",
       "Unknown VMDK descriptor encoding 'windows-1252'. Using Latin-1 instead."},
      {"n=\"\xe9\"\n", L"\u00e9",
       "Ignoring VMDK descriptor decoding error (encoding: ''. Using Latin-1 encoding instead."},
      {"encoding=\"UTF-8\"\nn=\"\xff\xfe\"\n", L"\u00ff\u00fe",
       "Ignoring VMDK descriptor decoding error (encoding: 'UTF-8'. Using Latin-1 encoding instead."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    test::CLogCapture log;
    kx::P<CVMDKDescriptor> d = parse(c.input);
    EXPECT_EQ(d->getValue("n"), kx::String(c.name));
    if (c.warning) {
      ASSERT_EQ(log.lines.size(), 1u);
      EXPECT_EQ(log.lines[0].level, kx::LogLevel::Warning);
      EXPECT_EQ(log.lines[0].text, c.warning);
    } else {
      EXPECT_TRUE(log.lines.empty());
    }
  }
}

TEST(DescriptorTest, StoreRefusesBeforeWritingAnything) {
  kx::P<CVMDKDescriptor> d = parse("a=1\n");
  const std::string stored = "a=1\nencoding=\"UTF-8\"\n";  // 21 bytes
  kx::TBuffer<unsigned char> empty;
  kx::TBuffer<unsigned char> zeros(4);
  kx::CBufferStream stream;
  EXPECT_EQ(
      messageOf([&] { d->store(stream, 20, zeros); }),
      "Internal error: actual VMDK descriptor size exceeds target size (actual size: 21, target size: 20");
  EXPECT_EQ(messageOf([&] { d->store(stream, 26, zeros); }),
            "Internal error: pad buffer too small (size: 4, needed: 5");
  EXPECT_EQ(stream.getLength(), 0);
  // The encoding line went in with the first attempt, and stays.
  EXPECT_EQ(text(*d), stored);

  EXPECT_EQ(store(*d, 21, empty), stored);
  EXPECT_EQ(store(*d, 25, zeros), stored + std::string(4, '\0'));
}

TEST(DescriptorTest, WritePaddingRepeatsTheBuffer) {
  kx::TBuffer<unsigned char> pattern;
  pattern.assign(reinterpret_cast<const unsigned char*>("abcd"), 4);
  const std::pair<int, const char*> cases[] = {
      {-1, ""}, {0, ""}, {3, "abc"}, {8, "abcdabcd"}, {10, "abcdabcdab"}};
  for (const auto& [size, bytes] : cases) {
    kx::CBufferStream stream;
    zarn::vmdkWritePadding(stream, size, pattern);
    EXPECT_EQ(bytesOf(stream), bytes) << size;
  }
  kx::CBufferStream stream;
  EXPECT_THROW(zarn::vmdkWritePadding(stream, 1, kx::TBuffer<unsigned char>()), kx::CError);
}

}  // namespace
