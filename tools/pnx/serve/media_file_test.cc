// Media files of pnx serve: only regular files that really lie inside the media directory.

#include "tools/pnx/serve/media_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/files/fixtures_test.h"

namespace pnx::serve {
namespace {

TEST(ServeMediaFile, OpensFilesInsideTheRootOnlyAndReadsAtOffsets) {
  pnx::testing::TempDir dir;
  dir.write("media/a.png", "png bytes");
  dir.write("media/sub/b.mp3", "mp3 bytes");
  const std::string secret = dir.write("secret.txt", "secret");
  ASSERT_EQ(symlink(secret.c_str(), dir.file("media/out.png").c_str()), 0);
  ASSERT_EQ(symlink(dir.path().c_str(), dir.file("media/outdir").c_str()), 0);
  ASSERT_EQ(symlink("a.png", dir.file("media/alias.png").c_str()), 0);
  ASSERT_EQ(mkfifo(dir.file("media/fifo").c_str(), 0600), 0);

  // The root itself reached through a link still works: its real path is the prefix.
  ASSERT_EQ(symlink(dir.file("media").c_str(), dir.file("link-to-media").c_str()), 0);
  auto root = mediaRoot(dir.file("link-to-media"));
  ASSERT_EQ(root.value_or(""), std::filesystem::canonical(dir.file("media")).string());

  auto png = MediaFile::open(*root, "a.png");
  ASSERT_TRUE(png);
  EXPECT_EQ(png->size(), 9u);
  char tail[4];
  EXPECT_EQ(png->readAt(tail, 4, 7), 2);  // up to the end, then nothing
  EXPECT_EQ(std::string(tail, 2), "es");
  EXPECT_EQ(png->readAt(tail, 4, 9), 0);
  // alias.png is a link that stays inside; the fifo is refused without waiting for a writer.
  for (const char* name : {"sub/b.mp3", "alias.png"}) EXPECT_TRUE(MediaFile::open(*root, name));
  for (const char* name : {"out.png", "outdir/secret.txt", "missing.png", "sub", "fifo", ""}) {
    EXPECT_FALSE(MediaFile::open(*root, name)) << name;
  }

  EXPECT_FALSE(mediaRoot(dir.file("media/a.png")));
  EXPECT_FALSE(mediaRoot(dir.file("nothing")));
}

}  // namespace
}  // namespace pnx::serve
