#include <stdlib.h>

#import "Shared.h"

/* What the SDK's operations that take nothing and give nothing are called in C. */
#define DOES(selector, function)          \
  -(void)selector {                       \
    TVDone(function(TVSdk()), #selector); \
  }
#define DOES_WITH_TEXT(selector, function)                  \
  -(void)selector : (NSString*)text {                       \
    TVDone(function(TVSdk(), TVText(text)), #selector ":"); \
  }

@implementation Tarvo
+ (NSInteger)TARVO_FORMAT_RAW {
  return TARVO_FORMAT_RAW;
}
+ (NSInteger)TARVO_FORMAT_EXTRAPOLATED {
  return TARVO_FORMAT_EXTRAPOLATED;
}
+ (NSString*)GEOJSON_LINESTRING {
  return @"LineString";
}
+ (NSString*)GEOJSON_MULTIPOINT {
  return @"MultiPoint";
}
+ (NSInteger)LOCAL_FOREGROUND {
  return TARVO_LOCAL_FOREGROUND;
}
+ (NSInteger)LOCAL_BACKGROUND {
  return TARVO_LOCAL_BACKGROUND;
}
+ (NSInteger)BACKEND_BACKGROUND {
  return TARVO_BACKEND_BACKGROUND;
}
+ (NSInteger)BACKEND_GEOPROFILE {
  return TARVO_BACKEND_GEOPROFILE;
}
+ (NSInteger)DEACTIVE_ALL {
  return TARVO_DEACTIVATED;
}
+ (NSString*)backgroundSessionID {
  return TVValue(TARVO_BACKGROUND_SESSION_ID);
}

+ (NSInteger)ACTIVATE_STATUS {
  return (NSInteger)tarvo_active_mode();
}
+ (void)setACTIVATE_STATUS:(NSInteger)mode {
  TVDone(tarvo_set_active_mode(TVSdk(), mode), "setACTIVATE_STATUS");
}
+ (NSString*)tarvoapiKey {
  return TVValue(TARVO_API_KEY);
}
+ (void)setTarvoapiKey:(NSString*)key {
  TVSetText(TARVO_API_KEY, key, "setTarvoapiKey");
}
+ (NSString*)clientID {
  return TVValue(TARVO_CLIENT_ID);
}
+ (void)setClientID:(NSString*)identifier {
  TVSetText(TARVO_CLIENT_ID, identifier, "setClientID");
}
+ (NSString*)bundleID {
  return TVValue(TARVO_BUNDLE_ID);
}
+ (void)setBundleID:(NSString*)identifier {
  TVSetText(TARVO_BUNDLE_ID, identifier, "setBundleID");
}
+ (NSString*)deviceToken {
  return TVValue(TARVO_DEVICE_TOKEN);
}
+ (void)setDeviceToken:(NSString*)token {
  TVSetText(TARVO_DEVICE_TOKEN, token, "setDeviceToken");
}
+ (BOOL)tokenSent {
  return [TVValueOfJson(TARVO_TOKEN_SENT) boolValue];
}
+ (void)setTokenSent:(BOOL)sent {
  TVDone(tarvo_set_value(TVSdk(), TARVO_TOKEN_SENT, sent ? "true" : "false"), "setTokenSent");
}
+ (NSDictionary*)SET_TAGS_LIST {
  return TVValueOfJson(TARVO_SET_TAGS_LIST);
}
+ (void)setSET_TAGS_LIST:(NSDictionary*)tags {
  TVSetJson(TARVO_SET_TAGS_LIST, tags, "setSET_TAGS_LIST");
}
+ (NSArray*)UNSET_TAGS_LIST {
  return TVValueOfJson(TARVO_UNSET_TAGS_LIST);
}
+ (void)setUNSET_TAGS_LIST:(NSArray*)names {
  TVSetJson(TARVO_UNSET_TAGS_LIST, names, "setUNSET_TAGS_LIST");
}

static TarvoTrip* tripOf(tarvo_result (*get)(tarvo_sdk*, tarvo_trip**), const char* what) {
  tarvo_trip* trip = NULL;
  return TVDone(get(TVSdk(), &trip), what) ? [TarvoTrip tripWithHandle:trip] : nil;
}

+ (TarvoTrip*)LastPrediction {
  return tripOf(tarvo_last_prediction, "LastPrediction");
}

+ (void)setLastPrediction:(TarvoTrip*)LastPrediction {
  tarvo_trip* trip = [LastPrediction newHandle];
  if (trip != NULL || LastPrediction == nil) TVDone(tarvo_set_last_prediction(TVSdk(), trip), "setLastPrediction");
  tarvo_trip_unref(trip);
}

/* ---- The object ---- */

struct parts {
  id<TarvoDelegate> delegate;
};

#define PARTS ((struct parts*)_impl)

- (instancetype)init {
  if ((self = [super init]) == nil) return nil;
  _impl = calloc(1, sizeof(struct parts)); /* first: once it is set, callbacks reach it */
  if (_impl == NULL || TVSdk() == NULL || !TVSetTarvo(self)) {
    NSLog(@"Tarvo: there is one already, or there can be none");
    [self release];
    return nil;
  }
  TVSetEngineDelegate(nil);
  TVAttachMainQueueSoon();
  return self;
}

- (oneway void)release {
  if (TVBeginRelease(self)) {
    [super release];
    TVEndRelease();
  } else {
    [super release];
  }
}

- (void)dealloc {
  if (_impl != NULL) {
    [(id)PARTS->delegate release];
    free(_impl);
  }
  [super dealloc];
}

- (LocationManager*)locationManager {
  return [LocationManager sharedInstance];
}

- (NSUserDefaults*)defaults {
  return TVDefaults();
}

- (id<TarvoDelegate>)delegate {
  id delegate;
  @synchronized(self) {
    delegate = [(id)PARTS->delegate retain];
  }
  return [delegate autorelease];
}

- (void)setDelegate:(id<TarvoDelegate>)delegate {
  id before;
  @synchronized(self) {
    before = PARTS->delegate;
    PARTS->delegate = [(id)delegate retain];
  }
  [before release];
  if (delegate != nil) TVSetEngineDelegate(nil);
}

- (void)activateWithService:(NSInteger)service {
  TVDone(tarvo_activate(TVSdk(), service), "activateWithService");
}

DOES(serviceConnect, tarvo_service_connect)
DOES(requestLocationUpdate, tarvo_request_location_update)
DOES(stopLocationUpdate, tarvo_stop_location_update)
DOES(resetLocalHistory, tarvo_reset_local_history)
DOES(resetBackendHistory, tarvo_reset_backend_history)
DOES(resetGeoProfileHistory, tarvo_reset_geo_profile_history)
DOES(requestRouteMatch, tarvo_request_route_match)
DOES(stopRouteMatch, tarvo_stop_route_match)
DOES(requestPredictionUpdate, tarvo_request_prediction_update)
DOES(stopPredictionUpdate, tarvo_stop_prediction_update)
DOES_WITH_TEXT(didRegisterForRemoteNotificationsWithDeviceTokenWithToken, tarvo_set_device_token)
DOES_WITH_TEXT(setApiKeySecret, tarvo_set_api_key_secret)
DOES_WITH_TEXT(setUnSubscription, tarvo_set_unsubscription)
DOES_WITH_TEXT(unsetTagsWithName, tarvo_unset_tag)

- (CLLocation*)getCurrentLocation {
  tarvo_fix fix;
  return TVDone(tarvo_current_location(TVSdk(), &fix), "getCurrentLocation") ? [CLLocation locationWithFix:fix] : nil;
}

- (TarvoLocationsHistory*)getLocationHistoryWithFormat:(NSInteger)format since:(NSDate*)since until:(NSDate*)until {
  tarvo_history* handle = NULL;
  TVDone(tarvo_get_history(TVSdk(), (tarvo_format)format, TVSeconds(since), TVSeconds(until), &handle),
         "getLocationHistoryWithFormat");
  return [TarvoLocationsHistory historyWithHandle:handle];
}

- (TarvoTrip*)getNextTrip {
  return tripOf(tarvo_next_trip, "getNextTrip");
}

static void addZone(void* zones, const char* geojson) {
  TV_CALLBACK
  [(NSMutableArray*)zones addObject:[TVString(geojson) dataUsingEncoding:NSUTF8StringEncoding]];
  TV_END("getPointOfInterests")
}

- (NSArray*)getPointOfInterests {
  NSMutableArray* zones = [NSMutableArray array];
  TVDone(tarvo_points_of_interest(TVSdk(), addZone, zones), "getPointOfInterests");
  return zones;
}

- (BOOL)didReceiveRemoteNotification:(NSDictionary*)userInfo {
  return TVDone(tarvo_push_received(TVSdk(), TVJson(userInfo)), "didReceiveRemoteNotification");
}

- (void)setSubscription:(NSString*)name:(NSString*)value {
  TVDone(tarvo_set_subscription(TVSdk(), TVText(name), TVText(value)), "setSubscription");
}

- (void)setTagsWithName:(NSString*)name value:(NSString*)value {
  TVDone(tarvo_set_tag(TVSdk(), TVText(name), TVText(value)), "setTags");
}

- (BOOL)handleEventsForBackgroundURLSessionWithIdentifier:(NSString*)identifier
                                        completionHandler:(TarvoCompletionHandler)completionHandler {
  return TVBackgroundEvents(identifier, [[[TVHandler alloc] initWithBlock:completionHandler] autorelease]);
}

- (BOOL)handleEventsForBackgroundURLSessionWithIdentifier:(NSString*)identifier
                                                   target:(id)target
                                                 selector:(SEL)selector {
  return TVBackgroundEvents(identifier, [[[TVHandler alloc] initWithTarget:target selector:selector] autorelease]);
}

/* ---- What the engine tells ---- */

- (void)locationManagerDidReceiveNewLocations:(LocationManager*)engine newLocations:(NSArray*)newLocations {
  (void)engine;
  [[self delegate] tarvoDidReceiveNewLocations:self newLocations:newLocations];
}

- (void)locationManagerOnRouteMatched:(LocationManager*)engine
                     locationsHistory:(TarvoLocationsHistory*)locationsHistory {
  (void)engine;
  [[self delegate] tarvoOnRouteMatched:self locationsHistory:locationsHistory];
}

- (void)onPredictionUpdateDelegate {
  [[self delegate] tarvoOnPredictionUpdate:self trip:[Tarvo LastPrediction]];
}
@end
