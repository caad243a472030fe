#include "platform/notifications/notification_attachment.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/files/file_manager.h"
#include "platform/foundation/uuid.h"

namespace pnx {
namespace {

constexpr std::uint64_t kMegabyte = 1024 * 1024;

struct KnownExtension {
  std::string_view extension;
  AttachmentType type;
};

constexpr AttachmentType kJPEG{"public.jpeg", AttachmentKind::Image, 10 * kMegabyte};
constexpr AttachmentType kPNG{"public.png", AttachmentKind::Image, 10 * kMegabyte};
constexpr AttachmentType kGIF{"com.compuserve.gif", AttachmentKind::Image, 10 * kMegabyte};
constexpr AttachmentType kAIFF{"public.aiff-audio", AttachmentKind::Audio, 5 * kMegabyte};
constexpr AttachmentType kWAV{"com.microsoft.waveform-audio", AttachmentKind::Audio, 5 * kMegabyte};
constexpr AttachmentType kMP3{"public.mp3", AttachmentKind::Audio, 5 * kMegabyte};
constexpr AttachmentType kM4A{"public.mpeg-4-audio", AttachmentKind::Audio, 5 * kMegabyte};
constexpr AttachmentType kMPEG{"public.mpeg", AttachmentKind::Movie, 50 * kMegabyte};
constexpr AttachmentType kMP4{"public.mpeg-4", AttachmentKind::Movie, 50 * kMegabyte};
constexpr AttachmentType kAVI{"public.avi", AttachmentKind::Movie, 50 * kMegabyte};

constexpr KnownExtension kExtensions[] = {
    {"jpg", kJPEG},  {"jpeg", kJPEG}, {"png", kPNG}, {"gif", kGIF}, {"aif", kAIFF},
    {"aiff", kAIFF}, {"wav", kWAV},   {"mp3", kMP3}, {"m4a", kM4A}, {"mpg", kMPEG},
    {"mpeg", kMPEG}, {"mp4", kMP4},   {"avi", kAVI},
};

const char* kindName(AttachmentKind kind) {
  switch (kind) {
    case AttachmentKind::Image:
      return "images";
    case AttachmentKind::Audio:
      return "audio";
    case AttachmentKind::Movie:
      return "movies";
  }
  return "";
}

std::string lowercased(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

using Head = std::array<std::uint8_t, 16>;

bool startsWith(const Head& head, std::size_t length, std::size_t offset, std::string_view bytes) {
  if (offset + bytes.size() > length) return false;
  return std::memcmp(head.data() + offset, bytes.data(), bytes.size()) == 0;
}

// Whether the file's first bytes are those its type starts with.
bool headMatches(std::string_view type, const Head& head, std::size_t length) {
  auto at = [&](std::size_t offset, std::string_view bytes) {
    return startsWith(head, length, offset, bytes);
  };
  if (type == kPNG.typeIdentifier) return at(0, "\x89PNG\r\n\x1a\n");
  if (type == kJPEG.typeIdentifier) return at(0, "\xff\xd8\xff");
  if (type == kGIF.typeIdentifier) return at(0, "GIF87a") || at(0, "GIF89a");
  if (type == kWAV.typeIdentifier) return at(0, "RIFF") && at(8, "WAVE");
  if (type == kAVI.typeIdentifier) return at(0, "RIFF") && at(8, "AVI ");
  if (type == kAIFF.typeIdentifier) return at(0, "FORM") && (at(8, "AIFF") || at(8, "AIFC"));
  // MPEG-4 audio and video are ISO media files: a box of type "ftyp" comes first.
  if (type == kM4A.typeIdentifier || type == kMP4.typeIdentifier) return at(4, "ftyp");
  // An MPEG program stream pack header, or a bare video sequence header.
  if (type == kMPEG.typeIdentifier)
    return at(0, std::string_view("\0\0\1\xba", 4)) || at(0, std::string_view("\0\0\1\xb3", 4));
  if (type == kMP3.typeIdentifier) {
    if (at(0, "ID3")) return true;
    // A bare MPEG audio frame: 11 sync bits, then a layer other than the reserved 00
    // (which excludes AAC's ADTS frames).
    return length >= 2 && head[0] == 0xff && (head[1] & 0xe0) == 0xe0 && (head[1] & 0x06) != 0;
  }
  return false;
}

ErrorPtr refusal(std::int64_t code, const std::string& description, const URL& url) {
  Dictionary info;
  info[Value(NSLocalizedDescriptionKey)] = Value(description);
  info[Value(NSURLErrorKey)] = Value(std::make_shared<const URL>(url));
  return Error::make(UNErrorDomain, code, Value(std::move(info)));
}

// Reads up to head.size() bytes from the start of the file; -1 (and errno) on failure.
ssize_t readHead(const std::string& path, Head* head) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  std::size_t length = 0;
  while (length < head->size()) {
    ssize_t got = ::read(fd, head->data() + length, head->size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      int saved = errno;
      ::close(fd);
      errno = saved;
      return -1;
    }
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  ::close(fd);
  return static_cast<ssize_t>(length);
}

}  // namespace

std::optional<AttachmentType> attachmentTypeForFileName(std::string_view fileName) {
  auto dot = fileName.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return std::nullopt;
  std::string extension = lowercased(fileName.substr(dot + 1));
  for (const KnownExtension& known : kExtensions) {
    if (known.extension == extension) return known.type;
  }
  return std::nullopt;
}

NotificationAttachment::NotificationAttachment(std::string identifier, URL url, std::string type)
    : identifier_(std::move(identifier)), url_(std::move(url)), type_(std::move(type)) {}

NotificationAttachmentPtr NotificationAttachment::attachmentWithIdentifier(
    const std::string& identifier, const URL& url, const Value& /*options*/, ErrorPtr* error) {
  auto refuse = [&](std::int64_t code, const std::string& description) {
    if (error) *error = refusal(code, description, url);
    return nullptr;
  };
  if (!url.isFileURL()) {
    return refuse(UNErrorCodeAttachmentInvalidURL,
                  "Invalid attachment file URL: " + url.absoluteString() + " is not a file URL");
  }
  const std::string path = url.path();
  bool isDirectory = false;
  if (!FileManager::current().fileExists(path, &isDirectory) || isDirectory) {
    return refuse(UNErrorCodeAttachmentInvalidURL,
                  "Invalid attachment file URL: " +
                      std::string(isDirectory ? "a directory is at " : "no file at ") + path);
  }
  const std::string name = lastPathComponent(path);
  auto type = attachmentTypeForFileName(name);
  if (!type) {
    return refuse(UNErrorCodeAttachmentUnrecognizedType,
                  "Unrecognized attachment file type: \"" + name +
                      "\" has no extension of a supported image, audio or movie type");
  }
  ErrorPtr ignored;
  auto info = FileManager::current().attributesOfItem(path, &ignored);
  if (!info) {
    return refuse(UNErrorCodeAttachmentInvalidURL,
                  "Invalid attachment file URL: cannot read the attributes of " + path);
  }
  if (info->size == 0) {
    return refuse(UNErrorCodeAttachmentInvalidFileSize,
                  "Invalid attachment file size: " + path + " is empty");
  }
  if (info->size > type->maximumSize) {
    return refuse(UNErrorCodeAttachmentInvalidFileSize,
                  "Invalid attachment file size: " + path + " has " + std::to_string(info->size) +
                      " bytes, over the limit of " + std::to_string(type->maximumSize) +
                      " bytes for " + kindName(type->kind));
  }
  Head head{};
  ssize_t length = readHead(path, &head);
  if (length < 0) {
    return refuse(UNErrorCodeAttachmentInvalidURL,
                  "Invalid attachment file URL: cannot read " + path + ": " + std::strerror(errno));
  }
  if (!headMatches(type->typeIdentifier, head, static_cast<std::size_t>(length))) {
    return refuse(UNErrorCodeAttachmentCorrupt,
                  "Attachment file is corrupt: " + path + " does not begin as a " +
                      std::string(type->typeIdentifier) + " file does");
  }
  return NotificationAttachmentPtr(
      new NotificationAttachment(identifier.empty() ? UUID::random().string() : identifier, url,
                                 std::string(type->typeIdentifier)));
}

NotificationAttachmentPtr NotificationAttachment::withURL(const URL& url) const {
  return NotificationAttachmentPtr(new NotificationAttachment(identifier_, url, type_));
}

Value NotificationAttachment::jsonObject() const {
  return Value::dict(
      {{"identifier", identifier_}, {"url", url_.absoluteString()}, {"type", type_}});
}

std::string NotificationAttachment::description() const {
  return "<" + className() + ": identifier: \"" + identifier_ +
         "\", url: " + url_.absoluteString() + ", type: " + type_ + ">";
}

bool NotificationAttachment::isEqual(const Object& other) const {
  if (this == &other) return true;
  auto* attachment = dynamic_cast<const NotificationAttachment*>(&other);
  return attachment && identifier_ == attachment->identifier_ && url_.isEqual(attachment->url_) &&
         type_ == attachment->type_;
}

std::size_t NotificationAttachment::hash() const {
  return std::hash<std::string>()(identifier_) ^ (url_.hash() << 1);
}

}  // namespace pnx
