/* Feeds the recording of a receiver to the SDK, uploads every position, and prints the history as GeoJSON.
 *
 * usage: tracker HOME BACKEND RECORDING [CLIENT-ID API-KEY API-SECRET]
 *
 * The recording has lines of NMEA 0183 (RMC sentences; others are passed over) or of CSV:
 *   time,latitude,longitude[,accuracy[,speed[,course]]]      seconds since 1970, degrees, metres, m/s, degrees
 * The recording's times drive the SDK's clock, so that an hour takes moments. A program with a receiver at hand leaves
 * the clock alone and gives its fixes as they come.
 *
 *   gcc $(gnustep-config --objc-flags) tracker.m $(pkg-config --cflags --libs tarvo-objc) \
 *     $(gnustep-config --base-libs) -o tracker */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#import <tarvo-objc/Tarvo.h>
#include <time.h>

/* ---- The recording ---- */

static BOOL isIntact(const char* sentence) {
  unsigned sum = 0;
  const char* at = sentence + 1;
  while (*at != '\0' && *at != '*') sum ^= (unsigned char)*at++;
  return *at == '\0' || strtoul(at + 1, NULL, 16) == sum;
}

/* "4807.038" and "N" as degrees. */
static double degrees(NSString* text, NSString* hemisphere) {
  const double value = [text doubleValue];
  const double whole = (double)(int)(value / 100);
  const double angle = whole + (value - whole * 100) / 60;
  return [hemisphere isEqual:@"S"] || [hemisphere isEqual:@"W"] ? -angle : angle;
}

/* $GPRMC,time,A,latitude,N,longitude,E,knots,course,date,... */
static CLLocation* fixOfSentence(NSString* sentence) {
  NSArray* fields = [sentence componentsSeparatedByString:@","];
  struct tm day = {0};
  double second = 0, speed, course;
  if ([fields count] < 10 || ![[fields objectAtIndex:0] hasSuffix:@"RMC"] || !isIntact([sentence UTF8String]))
    return nil;
  if (![[fields objectAtIndex:2] hasPrefix:@"A"]) return nil;
  if (sscanf([[fields objectAtIndex:1] UTF8String], "%2d%2d%lf", &day.tm_hour, &day.tm_min, &second) != 3 ||
      sscanf([[fields objectAtIndex:9] UTF8String], "%2d%2d%2d", &day.tm_mday, &day.tm_mon, &day.tm_year) != 3)
    return nil;
  day.tm_mon -= 1;
  day.tm_year += 100;
  speed = [[fields objectAtIndex:7] length] > 0 ? [[fields objectAtIndex:7] doubleValue] * 1852 / 3600 : -1;
  course = [[fields objectAtIndex:8] length] > 0 ? [[fields objectAtIndex:8] doubleValue] : -1;
  return [[[CLLocation alloc]
      initWithCoordinate:CLLocationCoordinate2DMake(degrees([fields objectAtIndex:3], [fields objectAtIndex:4]),
                                                    degrees([fields objectAtIndex:5], [fields objectAtIndex:6]))
                altitude:0
      horizontalAccuracy:5
        verticalAccuracy:-1
                  course:course
                   speed:speed
               timestamp:[NSDate dateWithTimeIntervalSince1970:(double)timegm(&day) + second]] autorelease];
}

static CLLocation* fixOfLine(NSString* line) {
  double time, accuracy = 5, speed = -1, course = -1;
  CLLocationCoordinate2D place;
  if ([line hasPrefix:@"$"]) return fixOfSentence(line);
  if (sscanf([line UTF8String], "%lf,%lf,%lf,%lf,%lf,%lf", &time, &place.latitude, &place.longitude, &accuracy, &speed,
             &course) < 3)
    return nil;
  return [[[CLLocation alloc] initWithCoordinate:place
                                        altitude:0
                              horizontalAccuracy:accuracy
                                verticalAccuracy:-1
                                          course:course
                                           speed:speed
                                       timestamp:[NSDate dateWithTimeIntervalSince1970:time]] autorelease];
}

/* ---- What the SDK tells ---- */

@interface Listener : NSObject <TarvoDelegate, TarvoLogObserver> {
 @public
  unsigned long told;
}
@end

@implementation Listener
- (void)tarvoDidReceiveNewLocations:(Tarvo*)tarvo newLocations:(NSArray*)newLocations {
  told += [newLocations count]; /* this runs on one thread of the SDK; main looks after the work has ended */
}
- (void)tarvoOnRouteMatched:(Tarvo*)tarvo locationsHistory:(LocationsHistory*)locationsHistory {
}
- (void)tarvoOnPredictionUpdate:(Tarvo*)tarvo trip:(Trip*)trip {
}
/* The SDK tells a lot; the last line before an end is worth a look. */
- (void)tarvoLogLine:(NSString*)line {
  if ([line hasPrefix:@"Fatal error"]) fprintf(stderr, "%s\n", [line UTF8String]);
}
@end

/* ---- The host ---- */

static BOOL configure(NSString* home, NSString* backend, NSString* client, NSString* key) {
  NSError* error = nil;
  NSDictionary* info = [NSDictionary dictionaryWithObjectsAndKeys:client, @"TarvoClientID", key, @"TarvoApiKey",
                                                                  @"com.example.tracker", @"CFBundleIdentifier", nil];
  if ([TarvoHost setHome:home error:&error] && [TarvoHost setInfo:info error:&error] &&
      [TarvoHost setServer:backend allowPlainHTTP:NO error:&error])
    return YES;
  fprintf(stderr, "tracker: %s\n", [[error localizedDescription] UTF8String]);
  return NO;
}

/* Starts with the first fix, by whose time the clock is set. */
static Tarvo* newTracker(CLLocation* fix, Listener* listener, NSString* secret) {
  Tarvo* tarvo;
  if (![TarvoHost setManualClock:[fix timestamp] error:NULL]) return nil;
  tarvo = [[Tarvo alloc] init];
  [tarvo setDelegate:listener];
  [tarvo setApiKeySecret:secret];
  [tarvo activateWithService:[Tarvo BACKEND_BACKGROUND]];
  return tarvo;
}

/* Gives each fix its time, and the SDK as long as it needs for it. */
static BOOL feed(CLLocation* fix) {
  [TarvoHost moveClock:[fix timestamp]];
  [TarvoHost deliver:[NSArray arrayWithObject:fix]];
  return [TarvoHost waitUntilIdle:60];
}

/* A new device's channel is free 180 s after its first try; then everything leaves. */
static BOOL upload(void) {
  [TarvoHost moveClock:[[TarvoHost now] dateByAddingTimeInterval:180]];
  if ([TarvoHost flush:30]) return YES;
  fprintf(stderr, "tracker: not everything was uploaded\n");
  return NO;
}

static BOOL printHistory(Tarvo* tarvo) {
  LocationsHistory* history = [tarvo getLocationHistoryWithFormat:[Tarvo TARVO_FORMAT_RAW] since:nil until:nil];
  NSData* geojson = [history toGeoJSONWithGeometry:[Tarvo GEOJSON_LINESTRING]];
  return geojson != nil && fwrite([geojson bytes], [geojson length], 1, stdout) == 1 && putchar('\n') == '\n';
}

static BOOL track(FILE* recording, Listener* listener, NSString* secret) {
  char line[256];
  Tarvo* tarvo = nil;
  unsigned long fixes = 0;
  BOOL well = YES;
  while (well && fgets(line, sizeof line, recording) != NULL) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    CLLocation* fix = fixOfLine([NSString stringWithUTF8String:line]);
    if (fix != nil) {
      if (tarvo == nil) tarvo = newTracker(fix, listener, secret);
      well = tarvo != nil && feed(fix);
      ++fixes;
    }
    [pool release];
  }
  well = tarvo != nil && well && upload() && printHistory(tarvo);
  [tarvo release];
  fprintf(stderr, "tracker: %lu fixes fed, told of %lu\n", fixes, listener->told);
  return well;
}

int main(int argc, char** argv) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  Listener* listener = [[Listener alloc] init];
  NSArray* arguments = [[NSProcessInfo processInfo] arguments];
  const BOOL isNamed = argc == 7;
  FILE* recording;
  BOOL well;
  if (argc != 4 && argc != 7) {
    fprintf(stderr, "usage: tracker HOME BACKEND RECORDING [CLIENT-ID API-KEY API-SECRET]\n");
    return 2;
  }
  recording = fopen(argv[3], "r");
  if (recording == NULL) {
    perror(argv[3]);
    return 2;
  }
  [TarvoHost setLogObserver:listener];
  well =
      configure([arguments objectAtIndex:1], [arguments objectAtIndex:2],
                isNamed ? [arguments objectAtIndex:4] : @"demo", isNamed ? [arguments objectAtIndex:5] : @"demo-key") &&
      track(recording, listener, isNamed ? [arguments objectAtIndex:6] : @"demo-secret");
  fclose(recording);
  [TarvoHost setLogObserver:nil];
  [listener release];
  [pool release];
  if ([TarvoHost liveObjects] != 0) fprintf(stderr, "tracker: something was not given back\n");
  return well ? 0 : 1;
}
