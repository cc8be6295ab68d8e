-- A store of the model's first version, as it is kept when it has grown large: pages of 4 KiB, an index by number, two
-- over the queue, the kept number of rows with its trigger. In it: six positions, of each state two, a trip, a place, a
-- user.
PRAGMA page_size=4096;
PRAGMA application_id=1415672438;
PRAGMA foreign_keys=OFF;
BEGIN TRANSACTION;
CREATE TABLE IF NOT EXISTS "_metadata" ("name" TEXT PRIMARY KEY, "value" TEXT);
INSERT INTO _metadata VALUES('uuid','A83CD38B-099D-4BB5-8B6A-020112487158');
INSERT INTO _metadata VALUES('modelHash','d258551edc9f4048');
INSERT INTO _metadata VALUES('entities','Locations,PastTrips,PointOfInterest,Users');
INSERT INTO _metadata VALUES('Locations.rows','6 6');
CREATE TABLE IF NOT EXISTS "Locations" ("_key" INTEGER PRIMARY KEY, "altitude" REAL, "appAction" TEXT, "appName" TEXT, "course" REAL, "floor" INTEGER, "horizontalAccuracy" REAL, "latitude" REAL, "longitude" REAL, "serviceAction" TEXT, "speed" REAL, "locationTimestamp" REAL, "eventTimestamp" REAL, "userAction" TEXT, "identifierForVendor" TEXT, "verticalAccuracy" REAL, "sentWithoutACK" INTEGER, "unsent" INTEGER, "index" INTEGER, "localisationMethod" TEXT);
INSERT INTO Locations VALUES(1,519.50000000000000001,'unused','ios:org.example.host',90.249999999999999996,NULL,5.0,48.137000000000000456,11.574999999999999289,'loc_changed',1.5,1718445600.125,1795321427.5749549865,'walking','95C7704F-7466-4CEC-90DB-F12258FB2055',8.0,0,0,0,'sls');
INSERT INTO Locations VALUES(2,519.50000000000000001,'unused','ios:org.example.host',90.249999999999999996,2,5.0,48.137100000000003774,11.575099999999999056,'loc_changed',2.5,1718445601.125,1795321427.5760457515,'walking','95C7704F-7466-4CEC-90DB-F12258FB2055',8.0,0,0,1,'sls');
INSERT INTO Locations VALUES(3,519.50000000000000001,'unused','ios:org.example.host',90.249999999999999996,NULL,5.0,48.137199999999999988,11.575199999999998823,'loc_changed',3.5,1718445602.125,1795321427.5760943889,'walking','95C7704F-7466-4CEC-90DB-F12258FB2055',8.0,1,1,2,'sls');
INSERT INTO Locations VALUES(4,519.50000000000000001,'unused','ios:org.example.host',90.249999999999999996,NULL,5.0,48.137300000000003306,11.57529999999999859,'loc_changed',4.5,1718445603.1249999999,1795321427.5761327743,'walking','95C7704F-7466-4CEC-90DB-F12258FB2055',8.0,1,1,3,'sls');
INSERT INTO Locations VALUES(5,519.50000000000000001,'unused','ios:org.example.host',90.249999999999999996,NULL,5.0,48.13739999999999952,11.575400000000000133,'loc_changed',5.5,1718445604.1249999999,1795321427.5761697291,'walking','95C7704F-7466-4CEC-90DB-F12258FB2055',8.0,0,1,4,'sls');
INSERT INTO Locations VALUES(6,519.50000000000000001,'unused','ios:org.example.host',90.249999999999999996,NULL,5.0,48.137500000000002843,11.5754999999999999,'loc_disabled',6.5,1718445605.125,1795321427.576206684,'walking','95C7704F-7466-4CEC-90DB-F12258FB2055',8.0,0,1,5,'sls');
CREATE TABLE IF NOT EXISTS "PastTrips" ("_key" INTEGER PRIMARY KEY, "pasttrip_id" INTEGER, "departure_lat" REAL, "departure_lon" REAL, "arrival_lat" REAL, "arrival_lon" REAL, "start_time" REAL, "arrival_time" REAL, "route" TEXT);
INSERT INTO PastTrips VALUES(1,7,48.100000000000001421,11.499999999999999999,48.200000000000002842,11.599999999999999645,1718442000.0,1718443800.0,'{"coordinates":[[11.5,48.1],[11.6,48.2]],"type":"LineString"}');
CREATE TABLE IF NOT EXISTS "PointOfInterest" ("_key" INTEGER PRIMARY KEY, "poi_id" INTEGER, "latitude" REAL, "longitude" REAL, "point_geo_json" TEXT, "zone_geo_json" TEXT);
INSERT INTO PointOfInterest VALUES(1,3,48.149999999999998578,11.55000000000000071,'{"coordinates":[11.55,48.15],"type":"Point"}','{"coordinates":[],"type":"Polygon"}');
CREATE TABLE IF NOT EXISTS "Users" ("_key" INTEGER PRIMARY KEY, "uuid" TEXT, "timestamp" TEXT);
INSERT INTO Users VALUES(1,'3f2504e0-4f89-41d3-9a0c-0305e82c3301','2024-06-15 10:00:00 +0000');
CREATE INDEX "Locations_index" ON "Locations" ("index");
CREATE INDEX "Locations_eventTimestamp" ON "Locations" ("eventTimestamp");
CREATE INDEX "Locations_locationTimestamp" ON "Locations" ("locationTimestamp");
CREATE INDEX "Locations_unsent" ON "Locations" ("index") WHERE unsent = 1 AND sentWithoutACK = 0;
CREATE INDEX "Locations_awaiting" ON "Locations" ("index") WHERE sentWithoutACK = 1;
CREATE INDEX "PastTrips_pasttrip_id" ON "PastTrips" ("pasttrip_id");
CREATE INDEX "PastTrips_start_time" ON "PastTrips" ("start_time");
CREATE INDEX "PointOfInterest_poi_id" ON "PointOfInterest" ("poi_id");
CREATE TRIGGER "Locations_deleted" AFTER DELETE ON "Locations" BEGIN DELETE FROM "_metadata" WHERE name = 'Locations.rows'; END;
COMMIT;
PRAGMA journal_mode=WAL;
