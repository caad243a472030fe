#include "diagnostics/constants.h"

const char* const errorDomain = "pnx.campaign.mobile";
const char* const PNXSdkVersion = "3.8.0";

const char* const PNXRegisteredNotification = "PNXRegisteredNotification";
const char* const PNXRegistrationChangedNotification = "PNXRegistrationChangedNotification";
const char* const PNXEventSuccess = "PNXEventSuccess";
const char* const PNXDatabaseReset = "PNXDatabaseReset";
const char* const PNXEventFailure = "PNXEventFailure";
const char* const SetUserAttributesError = "SetUserAttributesError";
const char* const SetUserAttributesSuccess = "SetUserAttributesSuccess";
const char* const UpdateUserAttributesError = "UpdateUserAttributesError";
const char* const UpdateUserAttributesSuccess = "UpdateUserAttributesSuccess";
const char* const DeleteUserAttributesError = "DeleteUserAttributesError";
const char* const DeleteUserAttributesSuccess = "DeleteUserAttributesSuccess";
const char* const SetChannelAttributesError = "SetChannelAttributesError";
const char* const SetChannelAttributesSuccess = "SetChannelAttributesSuccess";
const char* const UpdateChannelAttributesError = "UpdateChannelAttributesError";
const char* const UpdateChannelAttributesSuccess = "UpdateChannelAttributesSuccess";
const char* const DeleteChannelAttributesError = "DeleteChannelAttributesError";
const char* const DeleteChannelAttributesSuccess = "DeleteChannelAttributesSuccess";
const char* const SimpleNotificationSource = "simpleNotification";
const char* const InboxSource = "inboxMessage";
const char* const InAppSource = "inAppMessage";
const char* const LocationDatabaseReady = "LocationDatabaseReady";
const char* const LocationDatabaseUpdated = "LocationDatabaseUpdated";
const char* const EnteredGeofence = "EnteredGeofence";
const char* const ExitedGeofence = "ExitedGeofence";
const char* const EnteredBeacon = "EnteredBeacon";
const char* const ExitedBeacon = "ExitedBeacon";
const char* const DownloadedLocations = "DownloadedLocations";
const char* const ResetReferenceLocation = "ResetReferenceLocation";
const char* const RefreshActiveGeofences = "RefreshActiveGeofences";
const char* const InboxCountUpdate = "InboxCountUpdate";
const char* const PNXSyncDatabase = "PNXSyncDatabase";
const char* const PNXCustomPushNotRegistered = "PNXCustomPushNotRegistered";
const char* const PNXCustomPushNotYetRegistered = "PNXCustomPushNotYetRegistered";
