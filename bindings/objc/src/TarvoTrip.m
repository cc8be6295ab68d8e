#include <stdlib.h>

#import "Shared.h"

struct parts {
  NSInteger id;
  NSDictionary *route, *next_destination;
  NSString *startTime, *ArrivalTime, *start_name, *arrival_name;
  NSNumber *destination_lon, *destination_lat, *probability, *duration;
};

#define PARTS ((struct parts*)_impl)
/* A getter, which outlives the next setter, and that one, which copies. */
#define COPIED(type, name, setter)             \
  -(type*)name {                               \
    return [[PARTS->name retain] autorelease]; \
  }                                            \
  -(void)setter : (type*)value {               \
    type* before = PARTS->name;                \
    PARTS->name = [value copy];                \
    [before release];                          \
  }

@implementation TarvoTrip
- (instancetype)init {
  if ((self = [super init]) != nil) {
    _impl = calloc(1, sizeof(struct parts));
    if (_impl == NULL) {
      [self release];
      return nil;
    }
    [self setRoute:[NSDictionary dictionary]];
    [self setNext_destination:[NSDictionary dictionary]];
    [self setStartTime:@""];
    [self setArrivalTime:@""];
    [self setStart_name:@""];
    [self setArrival_name:@""];
    [self setDestination_lon:TVNumber(-200)];
    [self setDestination_lat:TVNumber(-200)];
    [self setProbability:TVNumber(0)];
    [self setDuration:TVNumber(0)];
  }
  return self;
}

- (void)dealloc {
  struct parts* parts = PARTS;
  if (parts != NULL) {
    [parts->route release], [parts->next_destination release];
    [parts->startTime release], [parts->ArrivalTime release];
    [parts->start_name release], [parts->arrival_name release];
    [parts->destination_lon release], [parts->destination_lat release];
    [parts->probability release], [parts->duration release];
    free(parts);
  }
  [super dealloc];
}

- (id)copyWithZone:(NSZone*)zone {
  TarvoTrip* copy = [[[self class] allocWithZone:zone] init];
  [copy setId:[self id]];
  [copy setRoute:[self route]];
  [copy setNext_destination:[self next_destination]];
  [copy setStartTime:[self startTime]];
  [copy setArrivalTime:[self ArrivalTime]];
  [copy setStart_name:[self start_name]];
  [copy setArrival_name:[self arrival_name]];
  [copy setDestination_lon:[self destination_lon]];
  [copy setDestination_lat:[self destination_lat]];
  [copy setProbability:[self probability]];
  [copy setDuration:[self duration]];
  return copy;
}

- (NSInteger)id {
  return PARTS->id;
}
- (void)setId:(NSInteger)number {
  PARTS->id = number;
}
COPIED(NSDictionary, route, setRoute)
COPIED(NSDictionary, next_destination, setNext_destination)
COPIED(NSString, startTime, setStartTime)
COPIED(NSString, ArrivalTime, setArrivalTime)
COPIED(NSString, start_name, setStart_name)
COPIED(NSString, arrival_name, setArrival_name)
COPIED(NSNumber, destination_lon, setDestination_lon)
COPIED(NSNumber, destination_lat, setDestination_lat)
COPIED(NSNumber, probability, setProbability)
COPIED(NSNumber, duration, setDuration)

/* ---- Operations: the SDK's, on these contents ---- */

- (NSArray*)tripToArray {
  tarvo_trip* trip = [self newHandle];
  char* json = NULL;
  tarvo_trip_coordinates(trip, &json);
  tarvo_trip_unref(trip);
  return TVTakenJson(json);
}

- (NSArray*)toLocations {
  tarvo_trip* trip = [self newHandle];
  size_t count = 0;
  NSArray* locations = nil;
  if (tarvo_trip_locations(trip, NULL, 0, &count) == TARVO_OK) {
    NSMutableData* fixes = [NSMutableData dataWithLength:count * sizeof(tarvo_fix)];
    if (tarvo_trip_locations(trip, [fixes mutableBytes], count, &count) == TARVO_OK)
      locations = TVLocations([fixes bytes], count);
  }
  tarvo_trip_unref(trip);
  return locations;
}

- (NSArray*)toLocationCoordinate2D {
  NSArray* locations = [self toLocations];
  NSMutableArray* coordinates = [NSMutableArray arrayWithCapacity:[locations count]];
  NSUInteger i;
  for (i = 0; i < [locations count]; ++i) {
    const CLLocationCoordinate2D coordinate = [(CLLocation*)[locations objectAtIndex:i] coordinate];
    [coordinates addObject:TVCoordinate(coordinate.latitude, coordinate.longitude)];
  }
  return locations == nil ? nil : coordinates;
}

- (CLLocation*)fixBy:(tarvo_result (*)(tarvo_trip*, tarvo_fix*))operation {
  tarvo_trip* trip = [self newHandle];
  tarvo_fix fix;
  const BOOL isThere = operation(trip, &fix) == TARVO_OK;
  tarvo_trip_unref(trip);
  return isThere ? [CLLocation locationWithFix:fix] : nil;
}

- (CLLocation*)getStartTrip {
  return [self fixBy:tarvo_trip_start];
}

- (CLLocation*)getNextDestination {
  return [self fixBy:tarvo_trip_destination];
}

- (NSString*)getStartTime {
  tarvo_trip* trip = [self newHandle];
  char* start = NULL;
  tarvo_trip_start_time(trip, &start);
  tarvo_trip_unref(trip);
  return TVTaken(start);
}

- (NSDictionary*)toGeoJson {
  return [self next_destination];
}
- (NSString*)getArrivalTime {
  return [self ArrivalTime];
}
- (double)getProbability {
  return [[self probability] doubleValue];
}
- (double)getDuration {
  return [[self duration] doubleValue];
}
- (NSString*)getStartName {
  return [self start_name];
}
- (NSString*)getArrivalName {
  return [self arrival_name];
}
@end

@implementation TarvoTrip (TVHandle)
+ (instancetype)tripWithHandle:(tarvo_trip*)handle {
  TarvoTrip* trip = [[[self alloc] init] autorelease];
  tarvo_trip_info info = {0};
  char* json = NULL;
  info.size = sizeof info;
  if (!TVDone(tarvo_trip_get(handle, &info), "trip")) return nil;
  [trip setId:(NSInteger)info.id];
  if (tarvo_trip_route(handle, &json) == TARVO_OK) [trip setRoute:TVTakenJson(json)];
  if (tarvo_trip_geojson(handle, &json) == TARVO_OK) [trip setNext_destination:TVTakenJson(json)];
  [trip setStartTime:TVString(info.start_time)];
  [trip setArrivalTime:TVString(info.arrival_time)];
  [trip setStart_name:TVString(info.start_name)];
  [trip setArrival_name:TVString(info.arrival_name)];
  [trip setDestination_lon:TVNumber(info.destination_longitude)];
  [trip setDestination_lat:TVNumber(info.destination_latitude)];
  [trip setProbability:TVNumber(info.probability)];
  [trip setDuration:TVNumber(info.duration)];
  tarvo_trip_unref(handle);
  return trip;
}

/* "" for what JSON has not, which is refused. */
static const char* jsonOf(NSDictionary* content) {
  const char* json = TVJson(content);
  return json == NULL && content != nil ? "" : json;
}

- (tarvo_trip*)newHandle {
  tarvo_trip* handle = NULL;
  tarvo_trip_info info = {0};
  info.size = sizeof info;
  info.id = [self id];
  info.destination_latitude = [[self destination_lat] doubleValue];
  info.destination_longitude = [[self destination_lon] doubleValue];
  info.probability = [[self probability] doubleValue];
  info.duration = [[self duration] doubleValue];
  info.start_time = [[self startTime] UTF8String];
  info.arrival_time = [[self ArrivalTime] UTF8String];
  info.start_name = [[self start_name] UTF8String];
  info.arrival_name = [[self arrival_name] UTF8String];
  TVDone(tarvo_trip_new(&info, jsonOf([self route]), jsonOf([self next_destination]), &handle), "trip");
  return handle;
}
@end
