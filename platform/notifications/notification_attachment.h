// NotificationAttachment: a media file shown with a notification, judged before it is
// accepted as a careful platform judges it.
//
//   ErrorPtr error;
//   auto attachment = NotificationAttachment::attachmentWithIdentifier(
//       UUID::random().string(), URL::fileURL("/tmp/x.png"), Value(), &error);
//   if (!attachment) ... error->domain() == UNErrorDomain, error->code() == 105 ...
//
// The checks, in order, each refusal an Error in UNErrorDomain whose description names
// the file and what is wrong with it:
//   100 UNErrorCodeAttachmentInvalidURL       not a file URL, or no regular file there
//   101 UNErrorCodeAttachmentUnrecognizedType the file name's extension (any case) is not
//       one of: jpg jpeg png gif (images), aif aiff wav mp3 m4a (audio), mpg mpeg mp4 avi
//       (movies)
//   102 UNErrorCodeAttachmentInvalidFileSize  empty, or over the kind's limit: images
//       10 MB, audio 5 MB, movies 50 MB (MB = 1024 * 1024 bytes)
//   105 UNErrorCodeAttachmentCorrupt          the first bytes are not those of the type
//       (so a 404 page saved as "x.png" is refused)
// Only the file's first bytes are read. The attachment records the type identifier of
// its file ("public.png", "public.mpeg-4", ...). The options dictionary is accepted as
// the platform accepts it and not read. An empty identifier becomes a new UUID string.
//
// Thread-safety: immutable after construction; share freely between threads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

namespace pnx {

inline constexpr const char* UNErrorDomain = "UNErrorDomain";
inline constexpr std::int64_t UNErrorCodeAttachmentInvalidURL = 100;
inline constexpr std::int64_t UNErrorCodeAttachmentUnrecognizedType = 101;
inline constexpr std::int64_t UNErrorCodeAttachmentInvalidFileSize = 102;
inline constexpr std::int64_t UNErrorCodeAttachmentNotInDataStore = 103;
inline constexpr std::int64_t UNErrorCodeAttachmentMoveIntoDataStoreFailed = 104;
inline constexpr std::int64_t UNErrorCodeAttachmentCorrupt = 105;

enum class AttachmentKind { Image, Audio, Movie };

// What the platform knows about one attachment type.
struct AttachmentType {
  std::string_view typeIdentifier;  // "public.png"
  AttachmentKind kind;
  std::uint64_t maximumSize;  // bytes
};

// The type for a file name's extension (any case), or nullopt when it is not supported.
PNX_EXPORT std::optional<AttachmentType> attachmentTypeForFileName(std::string_view fileName);

class NotificationAttachment;
using NotificationAttachmentPtr = std::shared_ptr<const NotificationAttachment>;

class PNX_EXPORT NotificationAttachment final : public Object {
 public:
  // nullptr and *error (UNErrorDomain, codes above) when the file is refused.
  static NotificationAttachmentPtr attachmentWithIdentifier(const std::string& identifier,
                                                            const URL& url, const Value& options,
                                                            ErrorPtr* error = nullptr);

  const std::string& identifier() const { return identifier_; }
  const URL& url() const { return url_; }
  // The type identifier, e.g. "public.jpeg", "com.microsoft.waveform-audio".
  const std::string& type() const { return type_; }

  // The same attachment at another place (the notification store moves files there);
  // nothing is checked again.
  NotificationAttachmentPtr withURL(const URL& url) const;

  // {"identifier", "url", "type"}
  Value jsonObject() const;
  std::string className() const override { return "UNNotificationAttachment"; }
  // <UNNotificationAttachment: identifier: "...", url: file:///..., type: public.png>
  std::string description() const override;
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;

 private:
  NotificationAttachment(std::string identifier, URL url, std::string type);
  std::string identifier_;
  URL url_;
  std::string type_;
};

}  // namespace pnx
