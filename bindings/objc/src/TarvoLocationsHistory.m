#include <stdlib.h>

#import "Shared.h"

/* ---- Past trips ---- */

struct past_trip {
  tarvo_past_trip record;
  NSString* route;
};

#define PAST_TRIP ((struct past_trip*)_impl)
#define NUMBERED(name, bit, member)                                                \
  -(NSNumber*)name {                                                               \
    return PAST_TRIP->record.has & bit ? TVNumber(PAST_TRIP->record.member) : nil; \
  }
#define DATED(name, bit, member)                                                 \
  -(NSDate*)name {                                                               \
    return PAST_TRIP->record.has & bit ? TVDate(PAST_TRIP->record.member) : nil; \
  }

@implementation TarvoPastTrip
- (instancetype)init {
  return [self initWithRecord:NULL];
}

- (void)dealloc {
  if (_impl != NULL) [PAST_TRIP->route release];
  free(_impl);
  [super dealloc];
}

- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}

- (NSNumber*)pasttrip_id {
  return PAST_TRIP->record.has & TARVO_TRIP_HAS_ID ? [NSNumber numberWithLongLong:PAST_TRIP->record.id] : nil;
}
NUMBERED(departure_lat, TARVO_TRIP_HAS_DEPARTURE_LATITUDE, departure_latitude)
NUMBERED(departure_lon, TARVO_TRIP_HAS_DEPARTURE_LONGITUDE, departure_longitude)
NUMBERED(arrival_lat, TARVO_TRIP_HAS_ARRIVAL_LATITUDE, arrival_latitude)
NUMBERED(arrival_lon, TARVO_TRIP_HAS_ARRIVAL_LONGITUDE, arrival_longitude)
DATED(start_time, TARVO_TRIP_HAS_START_TIME, start_time)
DATED(arrival_time, TARVO_TRIP_HAS_ARRIVAL_TIME, arrival_time)
- (NSString*)route {
  return PAST_TRIP->route;
}
@end

@implementation TarvoPastTrip (TVRecord)
- (instancetype)initWithRecord:(const tarvo_past_trip*)record {
  if ((self = [super init]) == nil) return nil;
  _impl = calloc(1, sizeof(struct past_trip));
  if (_impl == NULL) {
    [self release];
    return nil;
  }
  if (record != NULL) {
    PAST_TRIP->record = *record;
    PAST_TRIP->record.route = NULL;
    PAST_TRIP->route = [TVString(record->route) retain];
  }
  return self;
}
@end

/* ---- Histories ---- */

struct history {
  tarvo_history* handle;
  NSArray *locations, *pasttrips;
};

#define HISTORY ((struct history*)_impl)

static NSArray* newPastTrips(tarvo_history* handle) {
  const size_t count = tarvo_history_trips(handle);
  NSMutableArray* trips = [[NSMutableArray alloc] initWithCapacity:count];
  tarvo_past_trip record = {0};
  size_t i;
  record.size = sizeof record;
  for (i = 0; i < count && tarvo_history_trip(handle, i, &record) == TARVO_OK; ++i) {
    TarvoPastTrip* trip = [[TarvoPastTrip alloc] initWithRecord:&record];
    [trips addObject:trip];
    [trip release];
  }
  return trips;
}

@implementation TarvoLocationsHistory
- (instancetype)init {
  return [self initWithHandle:NULL];
}

- (void)dealloc {
  if (_impl != NULL) {
    tarvo_history_unref(HISTORY->handle);
    [HISTORY->locations release];
    [HISTORY->pasttrips release];
    free(_impl);
  }
  [super dealloc];
}

- (NSArray*)locations {
  return [[HISTORY->locations retain] autorelease];
}

- (NSArray*)pasttrips {
  return [[HISTORY->pasttrips retain] autorelease];
}

- (CLLocationCoordinate2D)firstLocation {
  CLLocationCoordinate2D first = {0, 0};
  if (HISTORY->handle != NULL) tarvo_history_first(HISTORY->handle, &first.latitude, &first.longitude);
  return first;
}

- (CLLocationCoordinate2D)getFirstLocation {
  return [self firstLocation];
}

- (NSArray*)toArray {
  NSMutableArray* fixes = [NSMutableArray array];
  NSUInteger i;
  for (i = 0; i < [HISTORY->locations count]; ++i) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    CLLocation* fix = [(TarvoPosition*)[HISTORY->locations objectAtIndex:i] location];
    if (fix != nil) [fixes addObject:fix];
    [pool release];
  }
  return fixes;
}

- (NSArray*)getBoundingBox {
  tarvo_bounds bounds;
  if (HISTORY->handle == NULL || tarvo_history_bounds(HISTORY->handle, &bounds) != TARVO_OK) return nil;
  return
      [NSArray arrayWithObjects:TVCoordinate(bounds.south, bounds.west), TVCoordinate(bounds.north, bounds.east), nil];
}

- (NSData*)toGeoJSONWithGeometry:(NSString*)geometry {
  const BOOL isLine = [geometry isEqual:[Tarvo GEOJSON_LINESTRING]];
  char* json = NULL;
  size_t length = 0;
  if (HISTORY->handle == NULL || (!isLine && ![geometry isEqual:[Tarvo GEOJSON_MULTIPOINT]])) return nil;
  TVDone(tarvo_history_geojson(HISTORY->handle, isLine ? TARVO_LINESTRING : TARVO_MULTIPOINT, &json, &length),
         "toGeoJSON");
  return TVTakenData(json, length);
}

- (NSArray*)toGeoJSON {
  NSMutableArray* routes = [NSMutableArray array];
  NSUInteger i;
  for (i = 0; i < [HISTORY->pasttrips count]; ++i) {
    NSString* route = [(TarvoPastTrip*)[HISTORY->pasttrips objectAtIndex:i] route];
    if (route != nil) [routes addObject:[route dataUsingEncoding:NSUTF8StringEncoding]];
  }
  return routes;
}
@end

@implementation TarvoLocationsHistory (TVHandle)
+ (instancetype)historyWithHandle:(tarvo_history*)handle {
  TarvoLocationsHistory* history = handle == NULL ? nil : [[[self alloc] initWithHandle:handle] autorelease];
  tarvo_history_unref(handle);
  return history;
}

- (instancetype)initWithHandle:(tarvo_history*)history {
  if ((self = [super init]) == nil) return nil;
  _impl = calloc(1, sizeof(struct history));
  if (_impl == NULL) {
    [self release];
    return nil;
  }
  HISTORY->handle = tarvo_history_ref(history);
  HISTORY->locations = history == NULL ? [[NSArray alloc] init] : [[TVPositions alloc] initWithHistory:history];
  HISTORY->pasttrips = newPastTrips(history);
  return self;
}
@end
