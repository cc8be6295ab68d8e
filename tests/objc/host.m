/* A host against a sandbox: everything that only this binding does. usage: host HOME BACKEND */
#include <pthread.h>
#include <stdio.h>

#import <tarvo-objc/Tarvo.h>

static int failures;
#define CHECK(condition)                                      \
  do {                                                        \
    if (!(condition)) {                                       \
      fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
      ++failures;                                             \
    }                                                         \
  } while (0)
enum { kPositions = 4400, kStep = 40 }; /* more than reading marks its way by; seconds between them */
static const double kStart = 1.7e9;

/* ---- What the SDK tells ---- */

@interface Listener : NSObject <TarvoDelegate, TarvoHostDelegate, TarvoLogObserver> {
 @public
  int batches, fixes, matched, predicted, handled, notified, lines, starts;
  NSInteger matchedTrip;
  NSString* mode;
}
@end

static int listeners; /* alive */

@implementation Listener
- (id)init {
  ++listeners;
  return [super init];
}
- (void)dealloc {
  --listeners;
  [super dealloc];
}
- (void)tarvoDidReceiveNewLocations:(Tarvo*)tarvo newLocations:(NSArray*)newLocations {
  ++batches;
  fixes += (int)[newLocations count];
  CHECK([tarvo isKindOfClass:[Tarvo class]] && [[newLocations lastObject] isKindOfClass:[CLLocation class]]);
  if (batches > 1) return;
  CHECK(![TarvoHost waitUntilIdle:1]); /* would wait for this */
  [NSException raise:@"Listener" format:@"nothing of this leaves the callback"];
}
- (void)tarvoOnRouteMatched:(Tarvo*)tarvo locationsHistory:(TarvoLocationsHistory*)locationsHistory {
  (void)tarvo;
  ++matched;
  matchedTrip = [[(TarvoPastTrip*)[[locationsHistory pasttrips] lastObject] pasttrip_id] integerValue];
}
- (void)tarvoOnPredictionUpdate:(Tarvo*)tarvo trip:(Trip*)trip {
  (void)tarvo;
  predicted = (int)[trip id];
}
- (void)tarvoReceiverStartWithAccuracy:(CLLocationAccuracy)accuracy {
  (void)accuracy;
  ++starts;
  [NSException raise:@"Listener" format:@"nor of this"];
}
- (void)tarvoLogLine:(NSString*)line {
  if ([line hasPrefix:@"Fatal error"]) NSLog(@"%@", line);
  if (++lines == 1) CHECK([Tarvo tarvoapiKey] == nil); /* refused, and no line without end */
}
- (void)notified:(NSNotification*)notification {
  ++notified;
  if ([[notification name] isEqual:UIApplicationDidEnterBackgroundNotification]) mode = [LocationManager getAppState];
}
- (void)handle {
  ++handled;
  CHECK([NSThread isMainThread]);
}
@end

/* The main queue moves because the run loop does. */
static void runUntil(const int* counter, int value) {
  NSDate* end = [NSDate dateWithTimeIntervalSinceNow:20];
  while (*counter<value && [end timeIntervalSinceNow]> 0)
    [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:end];
  CHECK(*counter == value);
}

static CLLocation* fixAt(int step) {
  const CLLocationCoordinate2D place = CLLocationCoordinate2DMake(40 + 0.001 * step, 11);
  return [[[CLLocation alloc] initWithCoordinate:place
                                        altitude:0
                              horizontalAccuracy:5
                                verticalAccuracy:-1
                                       timestamp:[NSDate dateWithTimeIntervalSince1970:kStart + kStep * step]]
      autorelease];
}

static void deliver(int first, int last) {
  for (; first < last; ++first) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [[LocationManager sharedInstance] locationManager:nil didUpdateLocations:[NSArray arrayWithObject:fixAt(first)]];
    [pool release];
  }
  CHECK([TarvoHost waitUntilIdle:120]);
}

/* ---- The parts ---- */

static void testNames(void) {
  static const char* const names[] = {
      "Tarvo init locationManager delegate setDelegate: defaults activateWithService: serviceConnect "
      "requestLocationUpdate"
      " stopLocationUpdate getCurrentLocation getLocationHistoryWithFormat:since:until: getNextTrip getPointOfInterests"
      " resetLocalHistory resetBackendHistory resetGeoProfileHistory "
      "locationManagerDidReceiveNewLocations:newLocations:"
      " locationManagerOnRouteMatched:locationsHistory: onPredictionUpdateDelegate didReceiveRemoteNotification:"
      " didRegisterForRemoteNotificationsWithDeviceTokenWithToken: setApiKeySecret: requestRouteMatch stopRouteMatch"
      " requestPredictionUpdate stopPredictionUpdate setSubscription:: setUnSubscription: setTagsWithName:value:"
      " unsetTagsWithName: handleEventsForBackgroundURLSessionWithIdentifier:completionHandler:",
      "+Tarvo TARVO_FORMAT_RAW TARVO_FORMAT_EXTRAPOLATED LOCAL_FOREGROUND LOCAL_BACKGROUND BACKEND_BACKGROUND"
      " BACKEND_GEOPROFILE DEACTIVE_ALL GEOJSON_LINESTRING GEOJSON_MULTIPOINT backgroundSessionID ACTIVATE_STATUS"
      " setACTIVATE_STATUS: tarvoapiKey setTarvoapiKey: clientID setClientID: bundleID setBundleID: deviceToken"
      " setDeviceToken: tokenSent setTokenSent: SET_TAGS_LIST setSET_TAGS_LIST: UNSET_TAGS_LIST setUNSET_TAGS_LIST:"
      " LastPrediction setLastPrediction:",
      "TarvoTrip id route next_destination startTime ArrivalTime destination_lon destination_lat probability start_name"
      " arrival_name duration tripToArray toLocations toGeoJson getStartTrip getNextDestination getStartTime"
      " getArrivalTime getProbability getDuration getStartName getArrivalName toLocationCoordinate2D",
      "TarvoLocationsHistory locations pasttrips firstLocation toArray getFirstLocation toGeoJSONWithGeometry: "
      "toGeoJSON"
      " getBoundingBox",
      "LocationManager delegate setDelegate: apiKey tarvoStarted alreadyReceivedUUID networkTimer setNetworkTimer:"
      " defaults randomID handleEventsForBackgroundURLSession:completionHandler: start stop stopLocationUpdate"
      " requestLocationUpdate requestAgainLocationAuthorization getLastLocation"
      " checkAndRequestLocationAuthorizationWithStatus: foregroundMode refreshLoc locationManager:didUpdateLocations:"
      " locationManager:didFailWithError: locationManager:didChangeAuthorizationStatus: "
      "sendDataInBatchToRemoteWebServer"
      " addNewLastTrip: addNewPOI: getLastPastTrip getLocationhistorySince:until:"
      " getLocationhistoryExtraPolatedSince:until: getPointOfInterest removeData removePOIs checkAndRegisterUser"
      " registerUserToRemoteWebServer getUser",
      "+LocationManager sharedInstance terrameshDataVersion remoteWebServerURL callFromServerNotificationKey"
      " backgroundSessionID userUUID getAppState",
      "+NetworkManager SUBSCRIPTION_LIST UNSUBSCRIPTION_LIST LAST_POI_VERSION apiKeySecret UUID_SECRET_KEY CANAL_LOCK"
      " CANAL_TIME_LOCK LAST_TRIP_ID"};
  size_t i;
  NSUInteger j;
  for (i = 0; i < sizeof names / sizeof *names; ++i) {
    NSArray* words = [[NSString stringWithUTF8String:names[i]] componentsSeparatedByString:@" "];
    const BOOL isClassSide = names[i][0] == '+';
    Class named = NSClassFromString([[words objectAtIndex:0] substringFromIndex:isClassSide]);
    CHECK(named != Nil);
    for (j = 1; j < [words count]; ++j) {
      const SEL selector = NSSelectorFromString([words objectAtIndex:j]);
      if (isClassSide ? [named respondsToSelector:selector] : [named instancesRespondToSelector:selector]) continue;
      fprintf(stderr, "%s does not respond to %s\n", names[i], [[words objectAtIndex:j] UTF8String]);
      ++failures;
    }
  }
}

static void testMistakes(Tarvo* tarvo) {
  static const unichar cut[] = {'a', 0, 'b'};
  NSError* error = nil;
  CHECK([[[Tarvo alloc] init] autorelease] == nil); /* there is one */
  CHECK(![TarvoHost setHome:@"/elsewhere" error:&error] && [error code] == -5 && [error localizedDescription] != nil);
  CHECK(![TarvoHost setInfo:nil error:NULL]);
  [tarvo setTagsWithName:nil value:nil];
  [Tarvo setBundleID:@"whole"];
  [Tarvo setBundleID:[NSString stringWithCharacters:cut length:3]]; /* not the half of it either */
  CHECK([[Tarvo bundleID] isEqual:@"whole"]);
  [TarvoHost deliver:[NSArray arrayWithObject:@"no location"]];
  [TarvoHost setBatteryState:9 level:0.5];
  CHECK(![tarvo didReceiveRemoteNotification:[NSDictionary dictionaryWithObject:[NSDate date] forKey:@"no JSON"]]);
  CHECK(![tarvo handleEventsForBackgroundURLSessionWithIdentifier:@"another"
                                                           target:tarvo
                                                         selector:@selector(delegate)]);
  CHECK(![TarvoHost probeWithTarget:tarvo selector:NSSelectorFromString(@"unheardOf")]);
  CHECK([tarvo getLocationHistoryWithFormat:77 since:nil until:nil] == nil);
}

static void testValues(Tarvo* tarvo) {
  NSDictionary* tags = [NSDictionary dictionaryWithObject:@"\u00e9\"1" forKey:@"name"];
  [Tarvo setSET_TAGS_LIST:tags];
  CHECK([[Tarvo SET_TAGS_LIST] isEqual:tags]);
  [NetworkManager setUNSUBSCRIPTION_LIST:[NSSet setWithObject:@"one"]];
  CHECK([[NetworkManager UNSUBSCRIPTION_LIST] isEqual:[NSSet setWithObject:@"one"]]);
  [NetworkManager setUNSUBSCRIPTION_LIST:[NSSet set]];
  [Tarvo setSET_TAGS_LIST:[NSDictionary dictionary]];
  [Tarvo setTokenSent:YES];
  CHECK([Tarvo tokenSent] && [[Tarvo clientID] isEqual:@"demo"]);
  [[tarvo defaults] setInteger:3 forKey:@"host's own"];
  CHECK([[tarvo defaults] integerForKey:@"host's own"] == 3);
  [[tarvo defaults] removeObjectForKey:@"host's own"];
  CHECK([[tarvo defaults] objectForKey:@"host's own"] == nil);
  [[tarvo defaults] setBool:YES forKey:@"host's own"];
  [[tarvo defaults] setObject:nil forKey:@"host's own"];
  CHECK([[tarvo defaults] objectForKey:@"host's own"] == nil && [[tarvo defaults] dictionaryRepresentation] != nil);
  CHECK([[fixAt(0) locationOnFloor:[CLFloor floorWithLevel:2]] floor].level == 2 && [fixAt(0) floor] == nil);
  CHECK([fixAt(0) distanceFromLocation:fixAt(1)] > 110 && [fixAt(0) distanceFromLocation:fixAt(1)] < 112);
}

static void testTrips(Tarvo* tarvo, Listener* listener) {
  NSString* json =
      @"{\"type\":\"FeatureCollection\",\"features\":[{\"type\":\"Feature\",\"properties\":{},\"geometry\":"
       "{\"type\":\"LineString\",\"coordinates\":[[11.5,48.25],[11.625,48.125]]}}]}";
  NSData* data = [json dataUsingEncoding:NSUTF8StringEncoding];
  NSDictionary* route = [NSJSONSerialization JSONObjectWithData:data options:0 error:NULL];
  Trip* trip = [[[Trip alloc] init] autorelease];
  CLLocationCoordinate2D coordinate;
  CHECK([trip tripToArray] == nil && [trip getStartTrip] == nil &&
        [trip getNextDestination].coordinate.latitude == -200);
  trip.id = 7;
  trip.next_destination = route;
  trip.startTime = @"2017-03-02T08:15:30.123+0000";
  [Tarvo setLastPrediction:trip];
  [tarvo onPredictionUpdateDelegate]; /* as the engine does */
  CHECK(listener->predicted == 7);
  trip = [Tarvo LastPrediction];
  CHECK([[trip toGeoJson] isEqual:route] && [[trip tripToArray] count] == 2 && [[trip toLocations] count] == 2);
  [[[trip toLocationCoordinate2D] objectAtIndex:1] getValue:&coordinate];
  CHECK(coordinate.latitude == 48.125 && coordinate.longitude == 11.625);
  CHECK([trip getStartTrip].coordinate.latitude == 48.25 && [[trip getStartTime] length] > 0);

  trip.route = [NSDictionary dictionaryWithObject:[NSDate date] forKey:@"no JSON"];
  trip.id = 8;
  [Tarvo setLastPrediction:trip];
  CHECK([Tarvo LastPrediction].id == 7);

  [tarvo requestRouteMatch];
  [[tarvo locationManager]
      addNewLastTrip:[NSArray arrayWithObject:[NSDictionary dictionaryWithObjectsAndKeys:[NSNumber numberWithInt:41],
                                                                                         @"pasttrip_id", route,
                                                                                         @"route", nil]]];
  CHECK([TarvoHost waitUntilIdle:60]);
  CHECK(listener->matched == 1 && listener->matchedTrip == 41);
  CHECK([[[[tarvo locationManager] getLastPastTrip] pasttrip_id] intValue] == 41);
  [[tarvo locationManager] addNewLastTrip:[NSArray arrayWithObject:@"no trip"]];
}

static void testPositions(Tarvo* tarvo) {
  LocationsHistory* history = [tarvo getLocationHistoryWithFormat:[Tarvo TARVO_FORMAT_RAW] since:nil until:nil];
  NSArray* positions = [[[history locations] copy] autorelease];
  static const NSUInteger jumps[] = {4300, 3, 4200, 300, 255, 256, 4096, 4095, 0, 4399};
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSUInteger i = 0;
  CLLocationCoordinate2D corner;
  CHECK([positions count] == kPositions);
  for (TarvoPosition* position in positions) {
    CHECK([position.index unsignedIntegerValue] == i && [position.latitude doubleValue] == 40 + 0.001 * (int)i);
    ++i;
  }
  CHECK(i == kPositions);
  [pool release];
  for (TarvoPosition* position in [positions reverseObjectEnumerator])
    CHECK([position.index unsignedIntegerValue] == --i);
  for (i = 0; i < sizeof jumps / sizeof *jumps; ++i)
    CHECK([[(TarvoPosition*)[positions objectAtIndex:jumps[i]] index] unsignedIntegerValue] == jumps[i]);
  CHECK([[(TarvoPosition*)[positions objectAtIndex:9] localisationMethod] length] > 0);
  CHECK([[positions objectAtIndex:8] isEqual:[positions objectAtIndex:8]] &&
        ![[positions objectAtIndex:8] isEqual:[positions objectAtIndex:9]]);
  i = 0;
  @try {
    [positions objectAtIndex:kPositions];
  } @catch (NSException* raised) {
    i = [[raised name] isEqual:NSRangeException];
  }
  CHECK(i == 1);
  CHECK([[history toArray] count] == kPositions && [history firstLocation].latitude == 40);
  [[[history getBoundingBox] objectAtIndex:1] getValue:&corner];
  CHECK(corner.latitude == 40 + 0.001 * (kPositions - 1) && corner.longitude == 11);
  CHECK([NSJSONSerialization JSONObjectWithData:[history toGeoJSONWithGeometry:[Tarvo GEOJSON_MULTIPOINT]]
                                        options:0
                                          error:NULL] != nil);
  CHECK([history toGeoJSONWithGeometry:@"Circle"] == nil);
}

static void testReleases(Tarvo* tarvo) {
  const NSUInteger before = [TarvoHost liveObjects];
  int i;
  for (i = 0; i < 2000; ++i) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    TarvoLocationsHistory* history = [[tarvo locationManager] getLocationhistorySince:nil until:nil];
    CHECK([[history locations] objectAtIndex:(NSUInteger)i % 20] != nil &&
          [[Tarvo LastPrediction] getNextDestination] != nil);
    if (i == 1000) CHECK([TarvoHost liveObjects] > before);
    [pool release];
  }
  CHECK([TarvoHost liveObjects] == before);
}

static void* deliverMany(void* unused) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  int i;
  for (i = 0; i < 600; ++i) [TarvoHost deliver:[NSArray arrayWithObject:fixAt(kPositions - i % 2)]]; /* none filtered */
  [pool release];
  return unused;
}

/* The object goes while the SDK's threads want to tell it. */
static void testGoing(Tarvo* tarvo, Listener* listener) {
  pthread_t thread;
  int i, before;
  CHECK(pthread_create(&thread, NULL, deliverMany, NULL) == 0);
  for (i = 0; i < 500; ++i) {
    [[LocationManager sharedInstance] setDelegate:tarvo]; /* which keeps it no longer than that */
    [tarvo release];
    tarvo = nil;
    while (tarvo == nil) tarvo = [[Tarvo alloc] init]; /* until no callback keeps the old one */
    [tarvo setDelegate:listener];
  }
  pthread_join(thread, NULL);
  CHECK([TarvoHost waitUntilIdle:60]);
  before = listener->fixes;
  [TarvoHost deliver:[NSArray arrayWithObject:fixAt(0)]];
  CHECK([TarvoHost waitUntilIdle:60] && listener->fixes == before + 1);
  [tarvo release];
}

static void testHost(Tarvo* tarvo, Listener* listener) {
  NSNotificationCenter* center = [NSNotificationCenter defaultCenter];
  Listener* other = [[Listener alloc] init];
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  [center addObserver:listener selector:@selector(notified:) name:nil object:[TarvoHost class]];
  [TarvoHost applicationDidEnterBackground];
  [TarvoHost applicationDidBecomeActive];
  [TarvoHost setBatteryState:UIDeviceBatteryStateCharging level:0.5];
  [TarvoHost setBatteryState:UIDeviceBatteryStateCharging level:0.6]; /* no other state */
  CHECK(listener->notified == 3 && [listener->mode isEqual:@"app_paused"]);
  [center removeObserver:listener];

  CHECK([TarvoHost probeWithTarget:other selector:@selector(handle)]);
  runUntil(&other->handled, 1);
  CHECK([tarvo handleEventsForBackgroundURLSessionWithIdentifier:[Tarvo backgroundSessionID]
                                                          target:other
                                                        selector:@selector(handle)]);
  runUntil(&other->handled, 2);
#ifdef __BLOCKS__
  {
    __block int calls = 0;
    CHECK([tarvo handleEventsForBackgroundURLSessionWithIdentifier:[Tarvo backgroundSessionID]
                                                 completionHandler:^{
                                                   calls += [other retainCount] > 0; /* copied, it keeps what it uses */
                                                 }]);
    runUntil(&calls, 1);
  }
#endif
  CHECK([TarvoHost waitUntilIdle:60] && listener->starts > 0);
  [pool release];
  [other release];
  CHECK(listeners == 1); /* the other was let go of everywhere */
}

int main(int argc, char** argv) {
  static const char* const ours[] = {"CLLocation",    "TarvoTrip",     "TarvoLocationsHistory",
                                     "TarvoPosition", "TarvoPastTrip", "TVPositions",
                                     "TVHandler",     "Tarvo",         "Listener"};
  size_t i;
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const BOOL wasCounted = GSDebugAllocationActive(YES);
  Listener* listener = [[Listener alloc] init];
  NSDictionary* info =
      [NSDictionary dictionaryWithObjectsAndKeys:@"demo", @"TarvoClientID", @"demo-key", @"TarvoApiKey", nil];
  Tarvo* tarvo;
  if (argc != 3) return 2;
  [TarvoHost setLogObserver:listener];
  [TarvoHost setDelegate:listener];
  CHECK([TarvoHost setHome:[NSString stringWithUTF8String:argv[1]] error:NULL] && [TarvoHost setInfo:info error:NULL] &&
        [TarvoHost setServer:[NSString stringWithUTF8String:argv[2]] allowPlainHTTP:NO error:NULL] &&
        [TarvoHost setManualClock:[NSDate dateWithTimeIntervalSince1970:kStart] error:NULL]);
  tarvo = [[Tarvo alloc] init];
  [tarvo setDelegate:listener];
  [tarvo setApiKeySecret:@"demo-secret"];
  [tarvo activateWithService:[Tarvo BACKEND_BACKGROUND]];
  deliver(0, 20);
  testReleases(tarvo);
  deliver(20, kPositions);
  CHECK(listener->fixes == kPositions && listener->batches > 1 && listener->lines > 0);
  CHECK([tarvo getCurrentLocation].coordinate.latitude == 40 + 0.001 * (kPositions - 1));
  CHECK([TarvoHost moveClock:[[TarvoHost now] dateByAddingTimeInterval:180]] && [TarvoHost flush:60]);
  CHECK([[LocationManager userUUID] length] > 0 && [[[tarvo locationManager] getUser] count] == 1);

  testNames();
  testMistakes(tarvo);
  testValues(tarvo);
  testTrips(tarvo, listener);
  testPositions(tarvo);
  testHost(tarvo, listener);
  [pool release];
  pool = [[NSAutoreleasePool alloc] init];
  testGoing(tarvo, listener);
  [TarvoHost setDelegate:nil];
  CHECK([TarvoHost waitUntilIdle:60]); /* until the receiver was told to stop */
  [TarvoHost setLogObserver:nil];
  [pool release];
  CHECK([TarvoHost liveObjects] == 0);
  [listener release];
  CHECK(listeners == 0);
  pool = [[NSAutoreleasePool alloc] init];
  for (i = 0; i < sizeof ours / sizeof *ours; ++i) {
    const int left = GSDebugAllocationCount(NSClassFromString([NSString stringWithUTF8String:ours[i]]));
    if (left == 0) continue;
    fprintf(stderr, "%d of %s are left\n", left, ours[i]);
    ++failures;
  }
  GSDebugAllocationActive(wasCounted);
  [pool release];
  return failures > 0;
}
