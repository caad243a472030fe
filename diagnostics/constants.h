// The SDK's exported string constants: the error domain, the SDK version, and the names of
// notifications and message sources that the application side and this library share. No
// code of this library reads the vocabulary ones; they are exported so that both sides
// spell them alike.
//
// Thread-safety: immutable.
#pragma once

#include "platform/foundation/export.h"

extern PNX_EXPORT const char* const errorDomain;
extern PNX_EXPORT const char* const PNXSdkVersion;

extern PNX_EXPORT const char* const PNXRegisteredNotification;
extern PNX_EXPORT const char* const PNXRegistrationChangedNotification;
extern PNX_EXPORT const char* const PNXEventSuccess;
extern PNX_EXPORT const char* const PNXDatabaseReset;
extern PNX_EXPORT const char* const PNXEventFailure;
extern PNX_EXPORT const char* const SetUserAttributesError;
extern PNX_EXPORT const char* const SetUserAttributesSuccess;
extern PNX_EXPORT const char* const UpdateUserAttributesError;
extern PNX_EXPORT const char* const UpdateUserAttributesSuccess;
extern PNX_EXPORT const char* const DeleteUserAttributesError;
extern PNX_EXPORT const char* const DeleteUserAttributesSuccess;
extern PNX_EXPORT const char* const SetChannelAttributesError;
extern PNX_EXPORT const char* const SetChannelAttributesSuccess;
extern PNX_EXPORT const char* const UpdateChannelAttributesError;
extern PNX_EXPORT const char* const UpdateChannelAttributesSuccess;
extern PNX_EXPORT const char* const DeleteChannelAttributesError;
extern PNX_EXPORT const char* const DeleteChannelAttributesSuccess;
extern PNX_EXPORT const char* const SimpleNotificationSource;
extern PNX_EXPORT const char* const InboxSource;
extern PNX_EXPORT const char* const InAppSource;
extern PNX_EXPORT const char* const LocationDatabaseReady;
extern PNX_EXPORT const char* const LocationDatabaseUpdated;
extern PNX_EXPORT const char* const EnteredGeofence;
extern PNX_EXPORT const char* const ExitedGeofence;
extern PNX_EXPORT const char* const EnteredBeacon;
extern PNX_EXPORT const char* const ExitedBeacon;
extern PNX_EXPORT const char* const DownloadedLocations;
extern PNX_EXPORT const char* const ResetReferenceLocation;
extern PNX_EXPORT const char* const RefreshActiveGeofences;
extern PNX_EXPORT const char* const InboxCountUpdate;
extern PNX_EXPORT const char* const PNXSyncDatabase;
extern PNX_EXPORT const char* const PNXCustomPushNotRegistered;
extern PNX_EXPORT const char* const PNXCustomPushNotYetRegistered;
