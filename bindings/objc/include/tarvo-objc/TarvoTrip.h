/** @file
 * Predictions. */
#ifndef TARVO_OBJC_TRIP_H
#define TARVO_OBJC_TRIP_H

#import <tarvo-objc/CLLocation.h>

/** What the backend predicts of the user's next trip. A plain value: one thread at a time. Objects that it gives are
 * autoreleased. */
@interface TarvoTrip : NSObject <NSCopying> {
 @private
  void* _impl;
}
@property(nonatomic) NSInteger id;                         /**< the backend's number of the prediction */
@property(nonatomic, copy) NSDictionary* route;            /**< GeoJSON of the predicted route */
@property(nonatomic, copy) NSDictionary* next_destination; /**< GeoJSON, from which the operations take the route */
@property(nonatomic, copy) NSString* startTime;            /**< as it was sent: 2017-03-02T08:15:30.123+0000 */
@property(nonatomic, copy) NSString* ArrivalTime;          /**< in the same form */
@property(nonatomic, copy) NSNumber* destination_lon;      /**< degrees; -200: unset */
@property(nonatomic, copy) NSNumber* destination_lat;      /**< degrees; -200: unset */
@property(nonatomic, copy) NSNumber* probability;          /**< as it was sent */
@property(nonatomic, copy) NSString* start_name;           /**< of the place that it begins at */
@property(nonatomic, copy) NSString* arrival_name;         /**< of the place that it leads to */
@property(nonatomic, copy) NSNumber* duration;             /**< as it was sent */

/** The coordinates of the route's first feature, [longitude, latitude] pairs; nil without a list of them. */
- (NSArray*)tripToArray;
/** The same as fixes (CLLocation) of the present moment; nil when one of them is not a pair of numbers. */
- (NSArray*)toLocations;
/** The same as coordinates: NSValues of CLLocationCoordinate2D (`getValue:`). */
- (NSArray*)toLocationCoordinate2D;
/** `next_destination`. */
- (NSDictionary*)toGeoJson;
/** The first point of the route, as a fix of the present moment; nil when that is no pair of numbers. */
- (CLLocation*)getStartTrip;
/** The destination, as a fix of the present moment: (-200, -200) while it is unset. */
- (CLLocation*)getNextDestination;
/** The start time in the zone of the device; nil when it cannot be read. */
- (NSString*)getStartTime;
- (NSString*)getArrivalTime; /**< `ArrivalTime` */
- (double)getProbability;    /**< `probability` */
- (double)getDuration;       /**< `duration` */
- (NSString*)getStartName;   /**< `start_name` */
- (NSString*)getArrivalName; /**< `arrival_name` */
@end

/** The class by its name without the prefix. */
@compatibility_alias Trip TarvoTrip;

#endif
