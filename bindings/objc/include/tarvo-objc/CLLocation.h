/** @file
 * Fixes and coordinates, as hosts of an object runtime know them; the SDK brings its own, since there is no other here.
 */
#ifndef TARVO_OBJC_CLLOCATION_H
#define TARVO_OBJC_CLLOCATION_H

#import <Foundation/Foundation.h>

typedef double CLLocationDegrees;   /**< degrees, north or east */
typedef double CLLocationDistance;  /**< metres */
typedef double CLLocationAccuracy;  /**< metres; negative: invalid */
typedef double CLLocationSpeed;     /**< metres per second; negative: unknown */
typedef double CLLocationDirection; /**< degrees clockwise from true north; negative: unknown */

/** A point on the WGS 84 ellipsoid; an unset one of the SDK is (-200, -200). */
typedef struct CLLocationCoordinate2D {
  CLLocationDegrees latitude;  /**< north */
  CLLocationDegrees longitude; /**< east */
} CLLocationCoordinate2D;

/** A coordinate of these degrees. */
static inline CLLocationCoordinate2D CLLocationCoordinate2DMake(CLLocationDegrees latitude,
                                                                CLLocationDegrees longitude) {
  CLLocationCoordinate2D coordinate = {latitude, longitude};
  return coordinate;
}

/** What the user has decided. */
typedef NSInteger CLAuthorizationStatus;
/** Its values. */
enum {
  kCLAuthorizationStatusNotDetermined = 0,      /**< not asked so far */
  kCLAuthorizationStatusRestricted = 1,         /**< the user may not decide */
  kCLAuthorizationStatusDenied = 2,             /**< no */
  kCLAuthorizationStatusAuthorizedAlways = 3,   /**< in the background too */
  kCLAuthorizationStatusAuthorizedWhenInUse = 4 /**< while the application is in use */
};

/** The storey of a building, 0 at the ground. */
@interface CLFloor : NSObject <NSCopying> {
 @private
  NSInteger _level;
}
/** A floor of this level; autoreleased. */
+ (instancetype)floorWithLevel:(NSInteger)level;
@property(nonatomic, readonly) NSInteger level; /**< 0 at the ground */
@end

/** One fix of a receiver; immutable. */
@interface CLLocation : NSObject <NSCopying> {
 @private
  void* _impl;
}
/** A fix of now, accurate to 0 m, of which nothing else is known. */
- (instancetype)initWithLatitude:(CLLocationDegrees)latitude longitude:(CLLocationDegrees)longitude;
/** A fix without course and speed. A nil date is now. */
- (instancetype)initWithCoordinate:(CLLocationCoordinate2D)coordinate
                          altitude:(CLLocationDistance)altitude
                horizontalAccuracy:(CLLocationAccuracy)horizontalAccuracy
                  verticalAccuracy:(CLLocationAccuracy)verticalAccuracy
                         timestamp:(NSDate*)timestamp;
/** A fix on no floor. A nil date is now. */
- (instancetype)initWithCoordinate:(CLLocationCoordinate2D)coordinate
                          altitude:(CLLocationDistance)altitude
                horizontalAccuracy:(CLLocationAccuracy)horizontalAccuracy
                  verticalAccuracy:(CLLocationAccuracy)verticalAccuracy
                            course:(CLLocationDirection)course
                             speed:(CLLocationSpeed)speed
                         timestamp:(NSDate*)timestamp;
/** The same fix on this floor, or, with nil, on none; autoreleased. */
- (CLLocation*)locationOnFloor:(CLFloor*)floor;

@property(nonatomic, readonly) CLLocationCoordinate2D coordinate;     /**< WGS 84 */
@property(nonatomic, readonly) CLLocationDistance altitude;           /**< metres above sea level */
@property(nonatomic, readonly) CLLocationAccuracy horizontalAccuracy; /**< negative: the coordinate is invalid */
@property(nonatomic, readonly) CLLocationAccuracy verticalAccuracy;   /**< negative: the altitude is invalid */
@property(nonatomic, readonly) CLLocationDirection course;            /**< negative: unknown */
@property(nonatomic, readonly) CLLocationSpeed speed;                 /**< negative: unknown */
@property(nonatomic, readonly) NSDate* timestamp;                     /**< when the receiver made it; autoreleased */
@property(nonatomic, readonly) CLFloor* floor;                        /**< nil: unknown; autoreleased */

/** The way to the other fix, in metres, along the shortest line on the ellipsoid; -1 for nil, and when one of
 * them is off the globe. */
- (CLLocationDistance)distanceFromLocation:(CLLocation*)location;
@end

#endif
