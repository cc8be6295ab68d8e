/** @file
 * The SDK for hosts in Objective-C. docs/objc.md has a first program for gcc and for clang, and all rules on one page;
 * in short: manual retain and release, objects that come without alloc, new or copy in the selector are autoreleased,
 * nothing is thrown, and what a host's object throws in a callback is caught and logged. */
#ifndef TARVO_OBJC_TARVO_H
#define TARVO_OBJC_TARVO_H

#import <tarvo-objc/CLLocation.h>
#import <tarvo-objc/LocationManager.h>
#import <tarvo-objc/NetworkManager.h>
#import <tarvo-objc/TarvoHost.h>
#import <tarvo-objc/TarvoLocationsHistory.h>
#import <tarvo-objc/TarvoTrip.h>

@class Tarvo;

/** What the host is told: on threads of the SDK, one call at a time for each kind, in an autorelease pool. The SDK may
 * be called from here, but nothing that waits for it. */
@protocol TarvoDelegate
/** A batch of CLLocation as it was delivered. */
- (void)tarvoDidReceiveNewLocations:(Tarvo*)tarvo newLocations:(NSArray*)newLocations;
/** The newest past trip after a download, once `requestRouteMatch` was called. */
- (void)tarvoOnRouteMatched:(Tarvo*)tarvo locationsHistory:(TarvoLocationsHistory*)locationsHistory;
/** A new prediction, once `requestPredictionUpdate` was called. */
- (void)tarvoOnPredictionUpdate:(Tarvo*)tarvo trip:(TarvoTrip*)trip;
@end

/** The SDK's one class for the host: activation, histories, predictions, places, push messages and tags.
 *
 * One at a time: while there is one, `init` gives nil. The engine behind it lives as long as the process; to stop it,
 * activate DEACTIVE_ALL. The class side may be used without an object and builds the engine too: TarvoHost's settings
 * come before.
 *
 * Threads: any. Errors: none is thrown; a mistake of the caller is logged with NSLog and has no effect. */
@interface Tarvo : NSObject <LocationManagerDelegate> {
 @private
  void* _impl;
}
+ (NSInteger)TARVO_FORMAT_RAW;          /**< of histories: positions */
+ (NSInteger)TARVO_FORMAT_EXTRAPOLATED; /**< past trips */
+ (NSString*)GEOJSON_LINESTRING;        /**< of GeoJSON: "LineString" */
+ (NSString*)GEOJSON_MULTIPOINT;        /**< "MultiPoint" */
+ (NSInteger)LOCAL_FOREGROUND;          /**< mode 0 */
+ (NSInteger)LOCAL_BACKGROUND;          /**< mode 4: in the background too; histories */
+ (NSInteger)BACKEND_BACKGROUND;        /**< mode 8: uploads too */
+ (NSInteger)BACKEND_GEOPROFILE;        /**< mode 12: predictions too */
+ (NSInteger)DEACTIVE_ALL;              /**< mode -4 */
+ (NSString*)backgroundSessionID;       /**< which `handleEventsForBackgroundURLSessionWithIdentifier:` answers to */

+ (NSInteger)ACTIVATE_STATUS;                         /**< The mode, DEACTIVE_ALL at first. */
+ (void)setACTIVATE_STATUS:(NSInteger)mode;           /**< The mode alone, for programs that only read. */
+ (NSString*)tarvoapiKey;                             /**< The host's key at the backend. */
+ (void)setTarvoapiKey:(NSString*)key;                /**< Activating takes it from TarvoHost's info. */
+ (NSString*)clientID;                                /**< The host's client at the backend; activating takes it too. */
+ (void)setClientID:(NSString*)identifier;            /**< Refused unless it can stand in a URL's path. */
+ (NSString*)bundleID;                                /**< The host's bundle identifier. */
+ (void)setBundleID:(NSString*)identifier;            /**< Activating takes it from TarvoHost's info. */
+ (NSString*)deviceToken;                             /**< For push messages. */
+ (void)setDeviceToken:(NSString*)token;              /**< Tells the backend nothing. */
+ (BOOL)tokenSent;                                    /**< Whether a registration of this process offered it. */
+ (void)setTokenSent:(BOOL)sent;                      /**< Tells the backend nothing. */
+ (NSDictionary*)SET_TAGS_LIST;                       /**< Tags that each push message repeats, name to value. */
+ (void)setSET_TAGS_LIST:(NSDictionary*)tags;         /**< As a whole. */
+ (NSArray*)UNSET_TAGS_LIST;                          /**< Names that each push message removes again. */
+ (void)setUNSET_TAGS_LIST:(NSArray*)names;           /**< As a whole. */
+ (TarvoTrip*)LastPrediction;                         /**< In any mode; an empty one at first. */
+ (void)setLastPrediction:(TarvoTrip*)LastPrediction; /**< nil: an empty one */

/** The SDK, or nil while there is one. On the main thread the SDK's main queue is then attached to its run loop; on
 * another it is, once the main thread's run loop runs. */
- (instancetype)init;
@property(readonly) LocationManager* locationManager; /**< The engine. */
@property(readonly) NSUserDefaults* defaults;         /**< The SDK's settings, not those of the program. */
/** Retained. Events reach it from now on, unless it is nil. */
@property(retain) id<TarvoDelegate> delegate;

/** Sets the mode, asks for the permission that it needs and starts collection; DEACTIVE_ALL stops it. */
- (void)activateWithService:(NSInteger)service;
- (void)serviceConnect;        /**< Starts standard updates; activating has done so. */
- (void)requestLocationUpdate; /**< Lets new positions reach the delegate; nothing in mode -4. */
- (void)stopLocationUpdate;    /**< Keeps them from it; collection goes on. */
/** The stored position with the newest fix time; nil in mode -4 and without one. Asks for the permission that the mode
 * needs. */
- (CLLocation*)getCurrentLocation;
/** Raw positions from mode 4, past trips from mode 8; nil below and when there are none. nil bounds are open;
 * positions go by the time of storage, trips by their start. */
- (TarvoLocationsHistory*)getLocationHistoryWithFormat:(NSInteger)format since:(NSDate*)since until:(NSDate*)until;
- (TarvoTrip*)getNextTrip;       /**< The latest prediction, maybe an empty one; nil below mode 12. */
- (NSArray*)getPointOfInterests; /**< The zones of the stored places, NSData of GeoJSON. */
- (void)resetLocalHistory;       /**< Deletes stored past trips and places. */
- (void)resetBackendHistory;     /**< Asks the backend to forget past trips and profile. */
- (void)resetGeoProfileHistory;  /**< The same of the profile alone. */

/** A push message; YES when it was for this SDK. NO with a line, in a mode from 8, before this process had a fix. */
- (BOOL)didReceiveRemoteNotification:(NSDictionary*)userInfo;
/** Gives the backend the token for push messages. */
- (void)didRegisterForRemoteNotificationsWithDeviceTokenWithToken:(NSString*)token;
- (void)setApiKeySecret:(NSString*)secret; /**< Of the host's API key, before or after activating. */
- (void)requestRouteMatch;                 /**< Tells the delegate of past trips from now on. */
- (void)stopRouteMatch;                    /**< No more; the subscription stays. */
- (void)requestPredictionUpdate;           /**< Tells the delegate of predictions from now on. */
- (void)stopPredictionUpdate;              /**< No more; the subscription stays. */
// clang-format off
- (void)setSubscription:(NSString*)name :(NSString*)value; /**< Subscribes to push messages; `value`: JSON. */
// clang-format on
- (void)setUnSubscription:(NSString*)name;                      /**< Ends that subscription. */
- (void)setTagsWithName:(NSString*)name value:(NSString*)value; /**< Sets a tag of this user at the backend. */
- (void)unsetTagsWithName:(NSString*)name;                      /**< Removes a tag there. */
/** For a process that was started to finish transfers: the block is called on the main queue. NO, keeping nothing,
 * unless the identifier is `backgroundSessionID`. For hosts that clang compiles; the block is copied. */
- (BOOL)handleEventsForBackgroundURLSessionWithIdentifier:(NSString*)identifier
                                        completionHandler:(TarvoCompletionHandler)completionHandler;
/** The same for every host: sends the target, which is retained until then, a message without arguments. */
- (BOOL)handleEventsForBackgroundURLSessionWithIdentifier:(NSString*)identifier
                                                   target:(id)target
                                                 selector:(SEL)selector;
@end

#endif
