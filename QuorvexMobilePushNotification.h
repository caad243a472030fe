// The whole public API of the library in one include:
//
//   #include <QuorvexMobilePushNotification/QuorvexMobilePushNotification.h>
//
// Each header below can also be included on its own, by the same path under
// <QuorvexMobilePushNotification/...>.
#pragma once

// The platform types the API's signatures use.
#include "platform/files/file_handle.h"
#include "platform/foundation/date.h"
#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/format.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/uuid.h"
#include "platform/foundation/value.h"
#include "platform/network/http_response.h"
#include "platform/network/url_request.h"
#include "platform/network/url_session.h"
#include "platform/notifications/notification_attachment.h"
#include "platform/notifications/notification_category.h"
#include "platform/notifications/notification_content.h"
#include "platform/security/os_status.h"

// The log, the error factories and the exported constants.
#include "diagnostics/constants.h"
#include "diagnostics/error_caller.h"
#include "diagnostics/errors.h"
#include "diagnostics/log.h"

// Gzip and hexadecimal text of byte buffers.
#include "codecs/gzip.h"
#include "codecs/hex.h"

// The configuration, the provisioning profile, the keychain store and deferred tasks.
#include "config/atomic_property.h"
#include "config/config.h"
#include "config/provisioning.h"
#include "delivery/task.h"
#include "storage/keychain.h"

// Delivery reporting and the notification service.
#include "delivery/push_delivery_client.h"
#include "delivery/push_delivery_manager.h"
#include "service/notification_service.h"
#include "service/notification_service_extension.h"
