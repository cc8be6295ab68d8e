#include <stdlib.h>

#import "Shared.h"

@implementation CLFloor
@synthesize level = _level;

+ (instancetype)floorWithLevel:(NSInteger)level {
  CLFloor* floor = [[[self alloc] init] autorelease];
  floor->_level = level;
  return floor;
}

- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}
@end

@implementation CLLocation
static tarvo_fix* fixOf(CLLocation* location);

- (instancetype)init {
  if ((self = [super init]) != nil) {
    _impl = calloc(1, sizeof(tarvo_fix));
    if (_impl == NULL) {
      [self release];
      return nil;
    }
    tarvo_fix_init(_impl);
  }
  return self;
}

- (instancetype)initWithLatitude:(CLLocationDegrees)latitude longitude:(CLLocationDegrees)longitude {
  if ((self = [self init]) != nil) {
    fixOf(self)->latitude = latitude;
    fixOf(self)->longitude = longitude;
  }
  return self;
}

- (instancetype)initWithCoordinate:(CLLocationCoordinate2D)coordinate
                          altitude:(CLLocationDistance)altitude
                horizontalAccuracy:(CLLocationAccuracy)horizontalAccuracy
                  verticalAccuracy:(CLLocationAccuracy)verticalAccuracy
                         timestamp:(NSDate*)timestamp {
  return [self initWithCoordinate:coordinate
                         altitude:altitude
               horizontalAccuracy:horizontalAccuracy
                 verticalAccuracy:verticalAccuracy
                           course:-1
                            speed:-1
                        timestamp:timestamp];
}

- (instancetype)initWithCoordinate:(CLLocationCoordinate2D)coordinate
                          altitude:(CLLocationDistance)altitude
                horizontalAccuracy:(CLLocationAccuracy)horizontalAccuracy
                  verticalAccuracy:(CLLocationAccuracy)verticalAccuracy
                            course:(CLLocationDirection)course
                             speed:(CLLocationSpeed)speed
                         timestamp:(NSDate*)timestamp {
  if ((self = [self initWithLatitude:coordinate.latitude longitude:coordinate.longitude]) != nil) {
    tarvo_fix* fix = fixOf(self);
    fix->altitude = altitude;
    fix->horizontal_accuracy = horizontalAccuracy;
    fix->vertical_accuracy = verticalAccuracy;
    fix->course = course;
    fix->speed = speed;
    if (timestamp != nil) fix->time = [timestamp timeIntervalSince1970];
  }
  return self;
}

- (CLLocation*)locationOnFloor:(CLFloor*)floor {
  tarvo_fix fix = *fixOf(self);
  fix.has_floor = floor != nil;
  fix.floor = (int32_t)[floor level];
  return [CLLocation locationWithFix:fix];
}

- (void)dealloc {
  free(_impl);
  [super dealloc];
}

- (id)copyWithZone:(NSZone*)zone {
  (void)zone;
  return [self retain];
}

static tarvo_fix* fixOf(CLLocation* location) { return location->_impl; }

- (CLLocationCoordinate2D)coordinate {
  return CLLocationCoordinate2DMake(fixOf(self)->latitude, fixOf(self)->longitude);
}
- (CLLocationDistance)altitude {
  return fixOf(self)->altitude;
}
- (CLLocationAccuracy)horizontalAccuracy {
  return fixOf(self)->horizontal_accuracy;
}
- (CLLocationAccuracy)verticalAccuracy {
  return fixOf(self)->vertical_accuracy;
}
- (CLLocationDirection)course {
  return fixOf(self)->course;
}
- (CLLocationSpeed)speed {
  return fixOf(self)->speed;
}
- (NSDate*)timestamp {
  return TVDate(fixOf(self)->time);
}
- (CLFloor*)floor {
  return fixOf(self)->has_floor ? [CLFloor floorWithLevel:fixOf(self)->floor] : nil;
}

- (CLLocationDistance)distanceFromLocation:(CLLocation*)location {
  double metres = -1;
  if (location != nil) tarvo_distance(fixOf(self), fixOf(location), &metres);
  return metres;
}

- (NSString*)description {
  const tarvo_fix* fix = fixOf(self);
  return
      [NSString stringWithFormat:@"<%+.8f,%+.8f> +/- %.2fm (speed %.2f mps / course %.2f) @ %@", fix->latitude,
                                 fix->longitude, fix->horizontal_accuracy, fix->speed, fix->course, [self timestamp]];
}
@end

@implementation CLLocation (TVFix)
+ (instancetype)locationWithFix:(tarvo_fix)fix {
  CLLocation* location = [[[self alloc] init] autorelease];
  if (location != nil) *fixOf(location) = fix;
  return location;
}

- (tarvo_fix)fix {
  return *fixOf(self);
}
@end

NSArray* TVLocations(const tarvo_fix* fixes, size_t count) {
  NSMutableArray* locations = [NSMutableArray arrayWithCapacity:count];
  size_t i;
  for (i = 0; i < count; ++i) [locations addObject:[CLLocation locationWithFix:fixes[i]]];
  return locations;
}
