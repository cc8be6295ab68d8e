#import "Shared.h"

/* What the engine's operations that take nothing and give nothing are called in C. */
#define DOES(selector, function)          \
  -(void)selector {                       \
    TVDone(function(TVSdk()), #selector); \
  }

@implementation LocationManager
static id networkTimer;

+ (instancetype)sharedInstance {
  static LocationManager* engine;
  @synchronized([LocationManager class]) {
    if (engine == nil) engine = [[LocationManager alloc] init];
  }
  TVSdk();
  return engine;
}

/* There is no other, and it stays. */
- (instancetype)retain {
  return self;
}
- (oneway void)release {
}
- (instancetype)autorelease {
  return self;
}

+ (NSString*)terrameshDataVersion {
  return TVValue(TARVO_TERRAMESH_DATA_VERSION);
}
+ (NSString*)remoteWebServerURL {
  return TVValue(TARVO_REMOTE_WEB_SERVER_URL);
}
+ (NSString*)callFromServerNotificationKey {
  return TVValue(TARVO_CALL_FROM_SERVER_KEY);
}
+ (NSString*)backgroundSessionID {
  return TVValue(TARVO_BACKGROUND_SESSION_ID);
}
+ (NSString*)userUUID {
  return TVValue(TARVO_USER_UUID);
}
+ (NSString*)getAppState {
  return TVValue(TARVO_APP_STATE);
}

- (id<LocationManagerDelegate>)delegate {
  return TVEngineDelegate();
}
- (void)setDelegate:(id<LocationManagerDelegate>)delegate {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init]; /* the host's would keep the Tarvo */
  TVSetEngineDelegate(delegate == (id)TVTarvo() ? nil : delegate);
  [pool release];
}
- (NSString*)apiKey {
  return TVValue(TARVO_ENGINE_API_KEY);
}
- (BOOL)tarvoStarted {
  return [TVValueOfJson(TARVO_STARTED) boolValue];
}
- (BOOL)alreadyReceivedUUID {
  return [TVValueOfJson(TARVO_ALREADY_RECEIVED_UUID) boolValue];
}
- (id)networkTimer {
  @synchronized(self) {
    return [[networkTimer retain] autorelease];
  }
  return nil;
}
- (void)setNetworkTimer:(id)timer {
  @synchronized(self) {
    [networkTimer autorelease];
    networkTimer = [timer retain];
  }
}
- (NSUserDefaults*)defaults {
  return TVDefaults();
}
- (uint32_t)randomID {
  return [TVValueOfJson(TARVO_RANDOM_ID) unsignedIntValue];
}

DOES(start, tarvo_engine_start)
DOES(stop, tarvo_engine_stop)
DOES(stopLocationUpdate, tarvo_stop_location_update)
DOES(requestLocationUpdate, tarvo_request_location_update)
DOES(requestAgainLocationAuthorization, tarvo_engine_ask_again)
DOES(foregroundMode, tarvo_engine_foreground)
DOES(refreshLoc, tarvo_engine_refresh)
DOES(sendDataInBatchToRemoteWebServer, tarvo_upload)
DOES(registerUserToRemoteWebServer, tarvo_engine_register_user)
DOES(removeData, tarvo_engine_remove_trips)
DOES(removePOIs, tarvo_engine_remove_places)

- (CLLocation*)getLastLocation {
  tarvo_fix fix;
  return TVDone(tarvo_engine_last_location(TVSdk(), &fix), "getLastLocation") ? [CLLocation locationWithFix:fix] : nil;
}

- (CLAuthorizationStatus)checkAndRequestLocationAuthorizationWithStatus:(NSInteger)status {
  tarvo_permission before = TARVO_NOT_DETERMINED;
  TVDone(tarvo_engine_ask(TVSdk(), status, &before), "checkAndRequestLocationAuthorization");
  return before;
}

- (NSString*)checkAndRegisterUser {
  char* uuid = NULL;
  TVDone(tarvo_engine_check_user(TVSdk(), &uuid), "checkAndRegisterUser");
  return TVTaken(uuid);
}

- (NSArray*)getUser {
  char* json = NULL;
  TVDone(tarvo_engine_users(TVSdk(), &json), "getUser");
  return TVTakenJson(json);
}

static TarvoLocationsHistory* historyOf(tarvo_format format, NSDate* since, NSDate* until) {
  tarvo_history* handle = NULL;
  TVDone(tarvo_engine_history(TVSdk(), format, TVSeconds(since), TVSeconds(until), &handle), "getLocationhistory");
  return [TarvoLocationsHistory historyWithHandle:handle];
}

- (TarvoLocationsHistory*)getLocationhistorySince:(NSDate*)since until:(NSDate*)until {
  return historyOf(TARVO_FORMAT_RAW, since, until);
}

- (TarvoLocationsHistory*)getLocationhistoryExtraPolatedSince:(NSDate*)since until:(NSDate*)until {
  return historyOf(TARVO_FORMAT_EXTRAPOLATED, since, until);
}

- (TarvoPastTrip*)getLastPastTrip {
  tarvo_history* handle = NULL;
  TVDone(tarvo_engine_last_trip(TVSdk(), &handle), "getLastPastTrip");
  return [[[TarvoLocationsHistory historyWithHandle:handle] pasttrips] lastObject];
}

- (NSArray*)getPointOfInterest {
  char* json = NULL;
  TVDone(tarvo_engine_places(TVSdk(), &json), "getPointOfInterest");
  return TVTakenJson(json);
}

- (void)addNewLastTrip:(NSArray*)trips {
  TVDone(tarvo_engine_add_trips(TVSdk(), TVJson(trips)), "addNewLastTrip");
}

- (void)addNewPOI:(NSArray*)pois {
  TVDone(tarvo_engine_add_places(TVSdk(), TVJson(pois)), "addNewPOI");
}

- (void)handleEventsForBackgroundURLSession:(NSString*)identifier
                          completionHandler:(TarvoCompletionHandler)completionHandler {
  TVBackgroundEvents(identifier, [[[TVHandler alloc] initWithBlock:completionHandler] autorelease]);
}

/* ---- The receiver ---- */

- (void)locationManager:(id)manager didUpdateLocations:(NSArray*)locations {
  (void)manager;
  [TarvoHost deliver:locations];
}

- (void)locationManager:(id)manager didFailWithError:(NSError*)error {
  (void)manager;
  TVDone(tarvo_report_failure([error code]), "didFailWithError");
}

- (void)locationManager:(id)manager didChangeAuthorizationStatus:(CLAuthorizationStatus)status {
  (void)manager;
  [TarvoHost setAuthorizationStatus:status];
}
@end
