// Media files of pnx serve: only regular files that really lie inside the media directory.

#include "tools/pnx/serve/media_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/files/fixtures_test.h"

namespace pnx::serve {
namespace {

std::string readAll(const MediaFile& file) {
  std::string text(file.size(), '\0');
  EXPECT_EQ(file.readAt(text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  return text;
}

TEST(ServeMediaFile, OpensFilesInsideTheRootOnly) {
  pnx::testing::TempDir outside;
  pnx::testing::TempDir dir;
  dir.write("media/a.png", "png bytes");
  dir.write("media/sub/b.mp3", "mp3 bytes");
  const std::string secret = outside.write("secret.txt", "secret");
  ASSERT_EQ(symlink(secret.c_str(), dir.file("media/out.png").c_str()), 0);
  ASSERT_EQ(symlink(outside.path().c_str(), dir.file("media/outdir").c_str()), 0);
  ASSERT_EQ(symlink("a.png", dir.file("media/alias.png").c_str()), 0);
  ASSERT_EQ(mkfifo(dir.file("media/fifo").c_str(), 0600), 0);

  // The root itself reached through a link still works: its real path is the prefix.
  ASSERT_EQ(symlink(dir.file("media").c_str(), dir.file("link-to-media").c_str()), 0);
  auto root = mediaRoot(dir.file("link-to-media"));
  ASSERT_TRUE(root);
  EXPECT_EQ(*root, std::filesystem::canonical(dir.file("media")).string());

  auto png = MediaFile::open(*root, "a.png");
  ASSERT_TRUE(png);
  EXPECT_EQ(readAll(*png), "png bytes");
  ASSERT_TRUE(MediaFile::open(*root, "sub/b.mp3"));
  ASSERT_TRUE(MediaFile::open(*root, "alias.png"));  // a link that stays inside

  EXPECT_FALSE(MediaFile::open(*root, "out.png"));
  EXPECT_FALSE(MediaFile::open(*root, "outdir/secret.txt"));
  EXPECT_FALSE(MediaFile::open(*root, "missing.png"));
  EXPECT_FALSE(MediaFile::open(*root, "sub"));   // a directory
  EXPECT_FALSE(MediaFile::open(*root, "fifo"));  // and without waiting for a writer
  EXPECT_FALSE(MediaFile::open(*root, ""));

  EXPECT_FALSE(mediaRoot(dir.file("media/a.png")));
  EXPECT_FALSE(mediaRoot(dir.file("nothing")));
}

TEST(ServeMediaFile, ReadsAtOffsetsUpToTheEnd) {
  pnx::testing::TempDir dir;
  dir.write("m/f.bin", "0123456789");
  auto file = MediaFile::open(*mediaRoot(dir.file("m")), "f.bin");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size(), 10u);
  char buffer[4];
  EXPECT_EQ(file->readAt(buffer, 4, 8), 2);
  EXPECT_EQ(std::string(buffer, 2), "89");
  EXPECT_EQ(file->readAt(buffer, 4, 10), 0);
}

}  // namespace
}  // namespace pnx::serve
