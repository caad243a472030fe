// The SDK's exported string constants: the error domain, the SDK version, and the names of
// notifications and message sources that the application side and this library share. No
// code of this library reads the vocabulary ones; they are exported so that both sides
// spell them alike.
//
// Thread-safety: immutable.
#pragma once

extern const char* const errorDomain;
extern const char* const PNXSdkVersion;

extern const char* const PNXRegisteredNotification;
extern const char* const PNXRegistrationChangedNotification;
extern const char* const PNXEventSuccess;
extern const char* const PNXDatabaseReset;
extern const char* const PNXEventFailure;
extern const char* const SetUserAttributesError;
extern const char* const SetUserAttributesSuccess;
extern const char* const UpdateUserAttributesError;
extern const char* const UpdateUserAttributesSuccess;
extern const char* const DeleteUserAttributesError;
extern const char* const DeleteUserAttributesSuccess;
extern const char* const SetChannelAttributesError;
extern const char* const SetChannelAttributesSuccess;
extern const char* const UpdateChannelAttributesError;
extern const char* const UpdateChannelAttributesSuccess;
extern const char* const DeleteChannelAttributesError;
extern const char* const DeleteChannelAttributesSuccess;
extern const char* const SimpleNotificationSource;
extern const char* const InboxSource;
extern const char* const InAppSource;
extern const char* const LocationDatabaseReady;
extern const char* const LocationDatabaseUpdated;
extern const char* const EnteredGeofence;
extern const char* const ExitedGeofence;
extern const char* const EnteredBeacon;
extern const char* const ExitedBeacon;
extern const char* const DownloadedLocations;
extern const char* const ResetReferenceLocation;
extern const char* const RefreshActiveGeofences;
extern const char* const InboxCountUpdate;
extern const char* const PNXSyncDatabase;
extern const char* const PNXCustomPushNotRegistered;
extern const char* const PNXCustomPushNotYetRegistered;
