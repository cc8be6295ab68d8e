/** @file
 * Histories, and the positions and past trips in them. */
#ifndef TARVO_OBJC_LOCATIONSHISTORY_H
#define TARVO_OBJC_LOCATIONSHISTORY_H

#import <tarvo-objc/CLLocation.h>

/** A stored position: a copy that later uploads do not change. Immutable; every attribute can be nil. */
@interface TarvoPosition : NSObject <NSCopying> {
 @private
  void* _impl;
}
@property(nonatomic, readonly) NSNumber* latitude;            /**< degrees */
@property(nonatomic, readonly) NSNumber* longitude;           /**< degrees */
@property(nonatomic, readonly) NSNumber* altitude;            /**< metres above sea level */
@property(nonatomic, readonly) NSNumber* horizontalAccuracy;  /**< metres; negative: invalid */
@property(nonatomic, readonly) NSNumber* verticalAccuracy;    /**< metres; negative: invalid */
@property(nonatomic, readonly) NSNumber* course;              /**< degrees clockwise from north; negative: unknown */
@property(nonatomic, readonly) NSNumber* speed;               /**< metres per second; negative: unknown */
@property(nonatomic, readonly) NSNumber* floor;               /**< of a building, 0 at the ground */
@property(nonatomic, readonly) NSDate* locationTimestamp;     /**< when the fix was made */
@property(nonatomic, readonly) NSDate* eventTimestamp;        /**< when it was stored */
@property(nonatomic, readonly) NSNumber* index;               /**< running number from 0 */
@property(nonatomic, readonly) NSString* serviceAction;       /**< why it was stored, as "loc_changed" */
@property(nonatomic, readonly) NSString* localisationMethod;  /**< how the fix came about, as "sls" */
@property(nonatomic, readonly) NSString* userAction;          /**< always "unknown" */
@property(nonatomic, readonly) NSString* appName;             /**< with the host's bundle identifier */
@property(nonatomic, readonly) NSString* appAction;           /**< always "unused" */
@property(nonatomic, readonly) NSString* identifierForVendor; /**< of the device */
@property(nonatomic, readonly) NSNumber* unsent;              /**< until the backend has acknowledged it */
@property(nonatomic, readonly) NSNumber* sentWithoutACK;      /**< posted, and not acknowledged so far */
@end

/** A past trip as the backend rebuilt it. Immutable; every attribute can be nil. */
@interface TarvoPastTrip : NSObject <NSCopying> {
 @private
  void* _impl;
}
@property(nonatomic, readonly) NSNumber* pasttrip_id;   /**< the backend's number of the trip */
@property(nonatomic, readonly) NSNumber* departure_lat; /**< degrees */
@property(nonatomic, readonly) NSNumber* departure_lon; /**< degrees */
@property(nonatomic, readonly) NSNumber* arrival_lat;   /**< degrees */
@property(nonatomic, readonly) NSNumber* arrival_lon;   /**< degrees */
@property(nonatomic, readonly) NSDate* start_time;      /**< when it began */
@property(nonatomic, readonly) NSDate* arrival_time;    /**< when it ended */
@property(nonatomic, readonly) NSString* route;         /**< GeoJSON */
@end

/** The positions or the past trips of a span of time, and what a map needs of them. Immutable. Threads: any. Objects
 * that it gives are autoreleased. */
@interface TarvoLocationsHistory : NSObject {
 @private
  void* _impl;
}
/** TarvoPosition, by ascending index. They stay in the SDK's store until they are asked for, and the array keeps 256
 * of them: going through a year takes little memory if each piece of the way has an autorelease pool. `count` is fixed;
 * what was deleted since, or cannot be read, is a position without attributes. Threads: any. */
@property(nonatomic, readonly) NSArray* locations;
@property(nonatomic, readonly) NSArray* pasttrips;                   /**< TarvoPastTrip, by ascending identifier */
@property(nonatomic, readonly) CLLocationCoordinate2D firstLocation; /**< of `locations`; (0, 0) without any */

/** One CLLocation for each position that has coordinates and a time. A missing altitude is 0; a missing accuracy,
 * course or speed is -1. */
- (NSArray*)toArray;
- (CLLocationCoordinate2D)getFirstLocation; /**< `firstLocation` */
/** South-west and north-east corner, NSValues of CLLocationCoordinate2D; both (-200, -200) when no point can be read.
 * nil without trips and positions, and when the positions cannot be read. */
- (NSArray*)getBoundingBox;
/** A GeoJSON FeatureCollection of the positions in UTF-8; nil when none has coordinates, and when they cannot be
 * read.
 * `geometry`: [Tarvo GEOJSON_LINESTRING] or [Tarvo GEOJSON_MULTIPOINT], nil for all else. */
- (NSData*)toGeoJSONWithGeometry:(NSString*)geometry;
/** The routes of the past trips that have one, NSData of GeoJSON. */
- (NSArray*)toGeoJSON;
@end

/** The class by its name without the prefix. */
@compatibility_alias LocationsHistory TarvoLocationsHistory;

#endif
