/** @file
 * The engine behind `Tarvo`. */
#ifndef TARVO_OBJC_LOCATIONMANAGER_H
#define TARVO_OBJC_LOCATIONMANAGER_H

#import <tarvo-objc/TarvoLocationsHistory.h>

/** A block without arguments and result, as clang's hosts write it: `^{ ... }`. */
DEFINE_BLOCK_TYPE_NO_ARGS(TarvoCompletionHandler, void);

@class LocationManager;

/** Whom the engine tells, on threads of the SDK, one call at a time for each kind. */
@protocol LocationManagerDelegate
/** A batch of CLLocation as it was delivered. */
- (void)locationManagerDidReceiveNewLocations:(LocationManager*)engine newLocations:(NSArray*)newLocations;
/** The newest past trip after a download, once [Tarvo requestRouteMatch] was called. */
- (void)locationManagerOnRouteMatched:(LocationManager*)engine
                     locationsHistory:(TarvoLocationsHistory*)locationsHistory;
/** A prediction has been stored ([Tarvo LastPrediction]), once [Tarvo requestPredictionUpdate] was called. */
- (void)onPredictionUpdateDelegate;
@end

/** What a receiver tells the engine. `manager` is whatever stands for the receiver, or nil. */
@protocol CLLocationManagerDelegate
/** Fixes (CLLocation), oldest first; queued. Fixes that are not finite or off the globe are left out. */
- (void)locationManager:(id)manager didUpdateLocations:(NSArray*)locations;
/** Positioning itself fails; code 0: no place for now, 1: the receiver may not be used. */
- (void)locationManager:(id)manager didFailWithError:(NSError*)error;
/** The user has decided. */
- (void)locationManager:(id)manager didChangeAuthorizationStatus:(CLAuthorizationStatus)status;
@end

/** The engine: one for the process, which turns fixes into stored positions and uploads them. A host works with
 * `Tarvo`, which calls it.
 *
 * Threads: any; `stop`, `stopLocationUpdate` and `requestLocationUpdate` wait for the engine's main queue, reads for
 * the object store. Nothing is thrown: what cannot be done is logged and has no effect, what is absent is nil. What the
 * engine's parts alone may call is not here; docs/objc.md lists it. */
@interface LocationManager : NSObject <CLLocationManagerDelegate>
+ (instancetype)sharedInstance;             /**< The engine; the first call builds it. */
+ (NSString*)terrameshDataVersion;          /**< Version of the form in which positions are sent. */
+ (NSString*)remoteWebServerURL;            /**< The backend's base address; see TarvoHost. */
+ (NSString*)callFromServerNotificationKey; /**< A name for notifications; the SDK posts none under it. */
+ (NSString*)backgroundSessionID;           /**< Of the session that uploads log files. */
+ (NSString*)userUUID;                      /**< nil until the device is registered */

/** Whom the events reach: at first the Tarvo. Another takes its place until a Tarvo is made or given a delegate; nil
 * brings the Tarvo back. Retained, as this runtime has no weak references that become nil. */
@property(assign) id<LocationManagerDelegate> delegate;
@property(readonly) NSString* apiKey;         /**< The user that the last check found; no key, despite its name. */
@property(readonly) BOOL tarvoStarted;        /**< Whether fixes are taken. */
@property(readonly) BOOL alreadyReceivedUUID; /**< Whether this process was given the user's identifier. */
@property(retain) id networkTimer;            /**< A place for a timer, which nothing reads. */
@property(readonly) NSUserDefaults* defaults; /**< The SDK's settings, not those of the program. */
@property(readonly) uint32_t randomID;        /**< Tells processes apart. */

- (void)start;                             /**< Standard updates and the last position again, in modes from 0. */
- (void)stop;                              /**< Takes no more fixes; regions stay on. */
- (void)stopLocationUpdate;                /**< Keeps new positions from the delegate. */
- (void)requestLocationUpdate;             /**< Lets them reach it; nothing in mode -4. */
- (void)requestAgainLocationAuthorization; /**< Shows the alert that leads to the settings. */
/** The stored position with the newest fix time; nil without one. Asks for the permission that the mode needs. */
- (CLLocation*)getLastLocation;
/** Asks for the permission that this mode needs and does not wait; gives what was given before. */
- (CLAuthorizationStatus)checkAndRequestLocationAuthorizationWithStatus:(NSInteger)status;
- (void)foregroundMode;   /**< Standard updates each 20 m, as on the screen; queued. */
+ (NSString*)getAppState; /**< "app_inactive", "app_paused" or "app_resumed" */
/** Stores the newest fix again (without the permission "always" the last position) and starts an upload pass; does
 * nothing but write a line while there is none. */
- (void)refreshLoc;

/** Starts an upload pass, in modes from 8: it neither waits after a failure nor keeps an interval. */
- (void)sendDataInBatchToRemoteWebServer;
/** The one stored user; nil without one, and then the device is registered if there is a secret. */
- (NSString*)checkAndRegisterUser;
- (void)registerUserToRemoteWebServer; /**< Asks the backend for an identity in any case. */
- (NSArray*)getUser;                   /**< NSDictionary of "uuid" and "timestamp", all of them */

/** Stored positions in any mode; nil bounds are open. */
- (TarvoLocationsHistory*)getLocationhistorySince:(NSDate*)since until:(NSDate*)until;
/** Past trips in any mode, by their start. */
- (TarvoLocationsHistory*)getLocationhistoryExtraPolatedSince:(NSDate*)since until:(NSDate*)until;
- (TarvoPastTrip*)getLastPastTrip; /**< The one with the highest identifier. */
/** NSDictionary of "poi_id", "latitude", "longitude", "point_geo_json" and "zone_geo_json", highest identifier first.
 */
- (NSArray*)getPointOfInterest;
- (void)addNewLastTrip:(NSArray*)trips; /**< NSDictionary as the backend sends them, with "pasttrip_id"; queued. */
- (void)addNewPOI:(NSArray*)pois;       /**< The same with "poi_id". */
- (void)removeData;                     /**< All past trips, with the next save. */
- (void)removePOIs;                     /**< All places, with the next save. */

/** As Tarvo's `handleEventsForBackgroundURLSessionWithIdentifier:completionHandler:`. */
- (void)handleEventsForBackgroundURLSession:(NSString*)identifier
                          completionHandler:(TarvoCompletionHandler)completionHandler;
@end

#endif
