#include "platform/notifications/notification_attachment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/files/fixtures_test.h"
#include "platform/foundation/uuid.h"

namespace pnx {
namespace {

using namespace std::literals;

const std::string kMedia = PNX_SOURCE_DIR "/examples/media/";

URL fileURLOr(const std::string& pathOrURL) {
  return pathOrURL.starts_with("/") ? URL::fileURL(pathOrURL) : *URL::parse(pathOrURL);
}

NotificationAttachmentPtr attach(const std::string& pathOrURL, ErrorPtr* error) {
  return NotificationAttachment::attachmentWithIdentifier("ID", fileURLOr(pathOrURL), Value(),
                                                          error);
}

// A sparse file of the given size that begins with head.
std::string sizedFile(const testing::TempDir& dir, const std::string& name, std::string_view head,
                      std::uint64_t size) {
  std::string path = dir.write(name, head);
  std::filesystem::resize_file(path, size);
  return path;
}

TEST(NotificationAttachment, JudgesEveryFileByItsExtensionAndContentAndComparesByValue) {
  testing::TempDir dir;
  std::filesystem::copy_file(kMedia + "sample.jpg", dir.file("PHOTO.JPEG"));
  const std::pair<std::string, const char*> samples[] = {
      {kMedia + "sample.png", "public.png"},
      {kMedia + "sample.jpg", "public.jpeg"},
      {kMedia + "sample.gif", "com.compuserve.gif"},
      {kMedia + "sample.wav", "com.microsoft.waveform-audio"},
      {kMedia + "sample.aiff", "public.aiff-audio"},
      {kMedia + "sample.mp3", "public.mp3"},
      {kMedia + "sample.m4a", "public.mpeg-4-audio"},
      {kMedia + "sample.mp4", "public.mpeg-4"},
      {kMedia + "sample.mpg", "public.mpeg"},
      {kMedia + "sample.avi", "public.avi"},
      {dir.file("PHOTO.JPEG"), "public.jpeg"},
      {sizedFile(dir, "edge.mp3", "ID3", 5 * 1024 * 1024), "public.mp3"},  // at its limit
  };
  for (const auto& [path, type] : samples) {
    ErrorPtr error;
    auto attachment = attach(path, &error);
    ASSERT_TRUE(attachment) << path << ": " << error->localizedDescription();
    EXPECT_EQ(attachment->type(), type) << path;
  }

  const URL sample = URL::fileURL(kMedia + "sample.png");
  auto first = NotificationAttachment::attachmentWithIdentifier("", sample, Value());
  ASSERT_TRUE(first);
  EXPECT_TRUE(UUID::parse(first->identifier()));
  auto again =
      NotificationAttachment::attachmentWithIdentifier(first->identifier(), sample, Value());
  EXPECT_TRUE(first->isEqual(*again));
  EXPECT_EQ(first->hash(), again->hash());
  EXPECT_FALSE(first->isEqual(*first->withURL(URL::fileURL("/elsewhere/sample.png"))));

  std::filesystem::create_directory(dir.file("folder.png"));
  const std::string png = "\x89PNG\r\n\x1a\n";
  struct Case {
    std::string what;
    std::string path;
    std::int64_t code;
    std::string described;  // a part of the description
  };
  const Case cases[] = {
      {"a missing file", dir.file("missing.png"), UNErrorCodeAttachmentInvalidURL,
       "no file at " + dir.file("missing.png")},
      {"a directory", dir.file("folder.png"), UNErrorCodeAttachmentInvalidURL, "a directory"},
      {"an unknown extension", dir.write("notes.txt", "hello"),
       UNErrorCodeAttachmentUnrecognizedType, "\"notes.txt\""},
      {"no extension", dir.write("image", png), UNErrorCodeAttachmentUnrecognizedType, "\"image\""},
      {"an empty file", dir.write("empty.jpg", ""), UNErrorCodeAttachmentInvalidFileSize,
       "is empty"},
      {"an image over 10 MB", sizedFile(dir, "big.png", png, 10 * 1024 * 1024 + 1),
       UNErrorCodeAttachmentInvalidFileSize, "over the limit of 10485760 bytes for images"},
      {"audio over 5 MB", sizedFile(dir, "big.wav", "RIFF\0\0\0\0WAVE"sv, 5 * 1024 * 1024 + 1),
       UNErrorCodeAttachmentInvalidFileSize, "for audio"},
      {"a movie over 50 MB",
       sizedFile(dir, "big.mp4",
                 "\0\0\0\x18"
                 "ftypisom"sv,
                 50 * 1024 * 1024 + 1),
       UNErrorCodeAttachmentInvalidFileSize, "for movies"},
      {"a 404 page saved as x.png",
       dir.write("x.png", "<!DOCTYPE html><html><body><h1>404 Not Found</h1></body></html>"),
       UNErrorCodeAttachmentCorrupt, dir.file("x.png") + " does not begin as a public.png"},
      {"a JPEG named .gif", dir.write("photo.gif", "\xff\xd8\xff\xe0 JFIF"),
       UNErrorCodeAttachmentCorrupt, "com.compuserve.gif"},
      {"a WAV named .avi", dir.write("clip.avi", "RIFF\0\0\0\0WAVEfmt "sv),
       UNErrorCodeAttachmentCorrupt, "public.avi"},
      {"AAC frames named .mp3", dir.write("song.mp3", "\xff\xf1\x50\x80\x00\x1f\xfc"sv),
       UNErrorCodeAttachmentCorrupt, "public.mp3"},
      {"a web URL", "https://media.example/sample.png", UNErrorCodeAttachmentInvalidURL,
       "is not a file URL"},
  };
  for (const Case& c : cases) {
    ErrorPtr error;
    EXPECT_FALSE(attach(c.path, &error)) << c.what;
    ASSERT_TRUE(error) << c.what;
    EXPECT_EQ(error->domain(), UNErrorDomain) << c.what;
    EXPECT_EQ(error->code(), c.code) << c.what << ": " << error->localizedDescription();
    EXPECT_NE(error->localizedDescription().find(c.described), std::string::npos)
        << c.what << ": " << error->localizedDescription();
    ASSERT_TRUE(error->url()) << c.what;
    EXPECT_EQ(error->url()->absoluteString(), fileURLOr(c.path).absoluteString()) << c.what;
  }
}

}  // namespace
}  // namespace pnx
